// A moment by which something has to be done. All waiting of the rehearsal is bounded by
// one of these.
#pragma once

#include <algorithm>
#include <chrono>

namespace torva::ctl::rehearsal {

class Deadline {
public:
    /// The moment that is so far away.
    explicit Deadline(std::chrono::milliseconds from_now)
        : moment_(std::chrono::steady_clock::now() + from_now) {}

    /// The earlier one of this moment and the one that is so far away.
    Deadline within(std::chrono::milliseconds from_now) const {
        Deadline other(from_now);
        other.moment_ = std::min(other.moment_, moment_);
        return other;
    }

    /// What is left, rounded up, for poll(2): 0 when the moment is over.
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
