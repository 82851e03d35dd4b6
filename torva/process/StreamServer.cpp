#include "torva/process/StreamServer.h"

#include "torva/process/SystemCall.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/select.h>
#include <unistd.h>

namespace torva::process {
namespace {

bool hasPending(const ServedChild& child) {
    return child.written < child.pending.size();
}

void makeNonBlocking(const Descriptor& stream) {
    if (stream) {
        systemCall("fcntl", [&stream] { return ::fcntl(stream.get(), F_SETFL, O_NONBLOCK); });
    }
}

} // namespace

StreamServer::StreamServer(std::vector<ServedChild>& served, const ProcessSet& children,
                           ProcessSetCatcher& catcher)
    : served_(served), children_(children), catcher_(catcher) {}

void StreamServer::run() {
    // A child that does not read must not keep us from serving the others.
    for (const ServedChild& child : served_) {
        makeNonBlocking(child.input);
        makeNonBlocking(child.output);
        makeNonBlocking(child.error);
    }
    for (;;) {
        for (ServedChild& child : served_) {
            prepareInput(child);
        }
        if (finished()) {
            return;
        }
        waitForEvents();
        for (ServedChild& child : served_) {
            serve(child);
        }
        if (readable_.contains(catcher_.wakeFd())) {
            catcher_.drain();
            childrenLeft_ = children_.running() != 0;
        }
    }
}

void StreamServer::prepareInput(ServedChild& child) {
    if (!child.input) {
        return;
    }
    if (!hasPending(child) && !child.inputComplete) {
        child.pending.clear();
        child.written = 0;
        child.inputComplete = !child.flags->input(child.pending);
    }
    if (!hasPending(child) && child.inputComplete) {
        child.input.closeQuietly();
    } else if (!childrenLeft_) {
        // Another process may still hold the other end, but it is not our child, and we
        // would never learn that it has ended.
        child.inputRefused = hasPending(child);
        child.input.closeQuietly();
    }
}

bool StreamServer::finished() const {
    if (childrenLeft_) {
        return false;
    }
    for (const ServedChild& child : served_) {
        if (child.input || child.output || child.error) {
            return false;
        }
    }
    return true;
}

void StreamServer::prepareSets() {
    readable_.clear();
    writable_.clear();
    readable_.add(catcher_.wakeFd());
    for (const ServedChild& child : served_) {
        if (child.output) {
            readable_.add(child.output.get());
        }
        if (child.error) {
            readable_.add(child.error.get());
        }
        if (child.input && hasPending(child)) {
            writable_.add(child.input.get());
        }
    }
}

void StreamServer::waitForEvents() {
    systemCall("select", [this] {
        prepareSets();
        return ::select(DescriptorSet::capacity, readable_.raw(), writable_.raw(), nullptr,
                        nullptr);
    });
}

void StreamServer::serve(ServedChild& child) {
    if (writable_.contains(child.input.get())) {
        feed(child);
    }
    if (readable_.contains(child.output.get())) {
        collect(child.output, child.flags->output);
    }
    if (readable_.contains(child.error.get())) {
        collect(child.error, child.flags->error);
    }
}

void StreamServer::feed(ServedChild& child) {
    try {
        child.written += writeSome(child.input.get(), child.pending.data() + child.written,
                                   child.pending.size() - child.written);
    } catch (const SystemError& error) {
        if (error.code() != EPIPE) {
            throw;
        }
        // The child has stopped reading. Its other streams may tell why, and its status
        // tells whether that matters.
        child.inputRefused = true;
        child.input.closeQuietly();
    }
}

void StreamServer::collect(Descriptor& stream, const OutputConsumer& consumer) {
    const ssize_t count =
        retried([&] { return ::read(stream.get(), buffer_.data(), buffer_.size()); });
    if (count == -1) {
        if (errno == EAGAIN) {
            return;
        }
        throwLastError("read");
    }
    if (count == 0) {
        stream.release("pipe read-end close");
        return;
    }
    chunk_.assign(buffer_.data(), buffer_.data() + count);
    consumer(chunk_);
}

std::size_t writeSome(int fd, const char* data, std::size_t size) {
    const int saved = errno;
    for (;;) {
        const ssize_t count = retried([&] { return ::write(fd, data, size); });
        if (count != -1) {
            errno = saved;
            return static_cast<std::size_t>(count);
        }
        if (errno != EAGAIN || size < 2) {
            throwLastError("write");
        }
        size /= 2;
    }
}

} // namespace torva::process
