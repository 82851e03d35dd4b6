// A moment by which something must be done. Every wait in the rehearsal has one.
#pragma once

#include <algorithm>
#include <chrono>

namespace torva::ctl::rehearsal {

class Deadline {
public:
    /// The moment after this time.
    explicit Deadline(std::chrono::milliseconds from_now)
        : moment_(std::chrono::steady_clock::now() + from_now) {}

    /// The earlier of this moment and the one after that time.
    Deadline within(std::chrono::milliseconds from_now) const {
        Deadline other(from_now);
        other.moment_ = std::min(other.moment_, moment_);
        return other;
    }

    /// The time left, rounded up, for poll(2); 0 when the moment has passed.
    int milliseconds() const {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            moment_ - std::chrono::steady_clock::now());
        return static_cast<int>(std::max<std::chrono::milliseconds::rep>(0, left.count()));
    }

    bool over() const { return milliseconds() == 0; }

private:
    std::chrono::steady_clock::time_point moment_;
};

} // namespace torva::ctl::rehearsal
