// The socket under a bound pipe or message queue: a Unix-domain stream that
// carries whole frames both ways. One thread per link reads frames, checks
// them and hands sound ones over; writers send on the caller's thread.
//
// A frame that cannot be read whole (the peer went away mid-frame, or it
// claims more than any frame may hold, or its first word is not the magic)
// ends the connection: the stream can no longer be followed. A frame read
// whole but inconsistent in itself is refused and the stream goes on.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>

#include "../host_internal.h"
#include "pipe_internal.h"

namespace krm::host::pipe {

class Link {
  public:
    Link(const LinkPlan &plan, int listenFd, int connFd, std::string path)
        : plan_(plan), listenFd_(listenFd), connFd_(connFd), path_(std::move(path)) {}
    Link(const Link &) = delete;
    Link &operator=(const Link &) = delete;
    ~Link();

    bool Start();
    bool Send(const std::vector<unsigned char> &frame);
    bool WaitPeer(std::uint32_t ms);

  private:
    void Run();
    bool AcceptPeer();
    void ServePeer(int fd);
    bool ReadFrame(int fd);  // false: the connection ends
    std::size_t ReadFull(int fd, unsigned char *buf, std::size_t n);
    void Refuse(FrameFault fault, const char *why, std::uint32_t got, std::uint32_t want);
    void DropPeer();

    LinkPlan plan_;
    int listenFd_;
    int connFd_;  // guarded by sendMu_; closed only by the link's thread
    std::string path_;
    int wake_[2] = {-1, -1};
    std::atomic<bool> stop_{false};
    std::mutex sendMu_;
    std::condition_variable peerChanged_;
    bool peerGone_ = false;  // a connecting link's peer has left
    std::thread thread_;
};

namespace {

bool MakeAddress(const char *path, sockaddr_un *addr) {
    if (path == nullptr || std::strlen(path) >= sizeof(addr->sun_path)) {
        return false;
    }
    std::memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    std::memcpy(addr->sun_path, path, std::strlen(path) + 1);
    return true;
}

int NewSocket() {
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

void CloseFd(int *fd) {
    if (*fd >= 0) {
        (void)::close(*fd);
        *fd = -1;
    }
}

}  // namespace

Link::~Link() {
    stop_.store(true);
    if (wake_[1] >= 0) {
        const char b = 1;
        (void)!::write(wake_[1], &b, 1);
    }
    if (thread_.joinable()) {
        thread_.join();
    }
    CloseFd(&connFd_);
    CloseFd(&listenFd_);
    CloseFd(&wake_[0]);
    CloseFd(&wake_[1]);
    if (!path_.empty()) {
        (void)::unlink(path_.c_str());
    }
}

bool Link::Start() {
    if (::pipe2(wake_, O_CLOEXEC) != 0) {
        return false;
    }
    thread_ = std::thread([this] { Run(); });
    return true;
}

void Link::Run() {
    if (listenFd_ < 0) {
        ServePeer(connFd_);
        return;
    }
    while (!stop_.load() && AcceptPeer()) {
        ServePeer(connFd_);
    }
}

// A listener serves one peer at a time and takes the next when it leaves.
bool Link::AcceptPeer() {
    pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    for (;;) {
        if (::poll(fds, 2, -1) < 0 && errno != EINTR) {
            return false;
        }
        if (fds[1].revents != 0 || stop_.load()) {
            return false;
        }
        if (fds[0].revents == 0) {
            continue;
        }
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
            const std::lock_guard<std::mutex> lock(sendMu_);
            connFd_ = fd;
            peerChanged_.notify_all();
            return true;
        }
    }
}

void Link::ServePeer(int fd) {
    while (!stop_.load() && ReadFrame(fd)) {
    }
    DropPeer();
}

void Link::DropPeer() {
    const std::lock_guard<std::mutex> lock(sendMu_);
    if (listenFd_ >= 0) {
        CloseFd(&connFd_);
    } else if (connFd_ >= 0) {
        // A connecting link keeps its descriptor until it is released, so
        // that a writer sees a failed send rather than a reused number.
        (void)::shutdown(connFd_, SHUT_RDWR);
        peerGone_ = true;
    }
}

bool Link::WaitPeer(std::uint32_t ms) {
    std::unique_lock<std::mutex> lock(sendMu_);
    return peerChanged_.wait_for(lock, std::chrono::milliseconds(ms),
                                 [this] { return connFd_ >= 0 && !peerGone_; });
}

// Bytes read before the peer closed or the link was stopped.
std::size_t Link::ReadFull(int fd, unsigned char *buf, std::size_t n) {
    std::size_t got = 0;
    pollfd fds[2] = {{fd, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    while (got < n && !stop_.load()) {
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            break;
        }
        if (fds[1].revents != 0) {
            break;
        }
        const ssize_t r = ::recv(fd, buf + got, n - got, 0);
        if (r == 0 || (r < 0 && errno != EINTR && errno != EAGAIN)) {
            break;
        }
        got += r > 0 ? static_cast<std::size_t>(r) : 0;
    }
    return got;
}

bool Link::ReadFrame(int fd) {
    unsigned char raw[kFrameHeaderSize];
    const std::size_t got = ReadFull(fd, raw, sizeof(raw));
    if (got < sizeof(raw)) {
        if (got != 0 && !stop_.load()) {
            Refuse(FrameFault::kShort, "header cut off", static_cast<std::uint32_t>(got),
                   kFrameHeaderSize);
        }
        return false;
    }
    const FrameHeader head = DecodeHeader(raw);
    if (head.magic != kFrameMagic || head.total < kFrameHeaderSize) {
        Refuse(FrameFault::kInconsistent, "not a frame header", kFrameHeaderSize, head.total);
        return false;
    }
    if (head.total > kMaxFrame) {
        Refuse(FrameFault::kOversized, "length above the frame limit", kFrameHeaderSize,
               head.total);
        return false;
    }
    std::vector<unsigned char> body(head.total - kFrameHeaderSize);
    const std::size_t bodyGot = ReadFull(fd, body.data(), body.size());
    if (bodyGot < body.size()) {
        if (!stop_.load()) {
            Refuse(FrameFault::kShort, "body cut off",
                   static_cast<std::uint32_t>(kFrameHeaderSize + bodyGot), head.total);
        }
        return false;
    }
    const char *why = "";
    Package pkg;
    FrameFault fault = DecodeBody(head, body, &pkg, &why);
    if (fault == FrameFault::kOk &&
        (head.type != static_cast<std::uint32_t>(plan_.type) || head.id != plan_.id)) {
        ReleasePackage(&pkg);
        fault = FrameFault::kInconsistent;
        why = "meant for another pipe or service";
    }
    if (fault != FrameFault::kOk) {
        Refuse(fault, why, head.total, head.total);
        return true;
    }
    plan_.deliver(plan_.id, head, &pkg);
    return true;
}

void Link::Refuse(FrameFault fault, const char *why, std::uint32_t got, std::uint32_t want) {
    PlatformReport(kReportFile, 401,
                   "%s %" PRIu32 ": frame refused whole: %s, %s (%" PRIu32 " of %" PRIu32 " bytes)",
                   plan_.noun, plan_.id, FrameFaultText(fault), why, got, want);
    plan_.refuse(plan_.id);
}

bool Link::Send(const std::vector<unsigned char> &frame) {
    const std::lock_guard<std::mutex> lock(sendMu_);
    std::size_t sent = 0;
    while (connFd_ >= 0 && sent < frame.size()) {
        const ssize_t r = ::send(connFd_, frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL);
        if (r < 0 && errno == EINTR) {
            continue;
        }
        if (r <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(r);
    }
    return connFd_ >= 0 && sent == frame.size();
}

std::shared_ptr<Link> LinkListen(const LinkPlan &plan, const char *path) {
    sockaddr_un addr;
    if (!MakeAddress(path, &addr)) {
        return nullptr;
    }
    int fd = NewSocket();
    (void)::unlink(path);
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0 ||
        ::listen(fd, 4) != 0) {
        CloseFd(&fd);
        return nullptr;
    }
    auto link = std::make_shared<Link>(plan, fd, -1, path);
    return link->Start() ? link : nullptr;
}

std::shared_ptr<Link> LinkConnect(const LinkPlan &plan, const char *path) {
    sockaddr_un addr;
    if (!MakeAddress(path, &addr)) {
        return nullptr;
    }
    int fd = NewSocket();
    if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) != 0) {
        CloseFd(&fd);
        return nullptr;
    }
    auto link = std::make_shared<Link>(plan, -1, fd, std::string());
    return link->Start() ? link : nullptr;
}

bool LinkWaitPeer(Link *link, std::uint32_t ms) {
    return link != nullptr && link->WaitPeer(ms);
}

bool LinkSend(Link *link, const std::vector<unsigned char> &frame) {
    return link != nullptr && !frame.empty() && link->Send(frame);
}

}  // namespace krm::host::pipe
