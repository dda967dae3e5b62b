// select, poll and epoll on simulated nodes. A node's descriptor is an eventfd, readable while
// a frame is ready; a V4L2 node also reports pending events as an exceptional condition (POLLPRI,
// select's exceptfds), which no eventfd can carry. Each open node therefore has a second, hidden
// eventfd that is readable while events are pending, and these calls wait on it in the node's
// place: exceptfds and POLLPRI of a node become readability of its hidden descriptor in the
// call made to the C library, and readiness of the hidden descriptor is reported back as the
// node's exceptional condition. The kernel does the waiting, so a wait that mixes nodes with any
// other descriptors behaves as one on real nodes. Calls that ask nothing exceptional of a node go
// to the C library untouched.
#include "preload/SimCamNodes.h"

#include <dlfcn.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/select.h>

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

using ruvo::capture::simcam::nodes;

namespace {

template <class F>
F next(const char* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

// The hidden event descriptor of `fd`, or -1 when `fd` is no simulated node.
int eventDescriptor(int fd) {
    auto* n = nodes();
    return n ? n->eventDescriptor(fd) : -1;
}

// poll and ppoll: `call` runs the C library's poll on an array with one more entry per node
// polled for POLLPRI, that entry asking for its hidden descriptor's readability.
template <class Call>
int pollNodes(struct pollfd* fds, nfds_t count, Call call) {
    std::vector<struct pollfd> all(fds, fds + count);
    std::vector<nfds_t> owners;  // index in fds of each appended entry
    for (nfds_t i = 0; i < count; ++i) {
        if (fds[i].fd < 0 || !(fds[i].events & POLLPRI)) continue;
        const int hidden = eventDescriptor(fds[i].fd);
        if (hidden == -1) continue;
        all.push_back(pollfd{hidden, POLLIN, 0});
        owners.push_back(i);
    }
    if (owners.empty()) return call(fds, count);
    const int result = call(all.data(), all.size());
    if (result < 0) return result;
    for (size_t k = 0; k < owners.size(); ++k)
        if (all[count + k].revents & POLLIN) all[owners[k]].revents |= POLLPRI;
    int ready = 0;
    for (nfds_t i = 0; i < count; ++i) {
        fds[i].revents = all[i].revents;
        ready += fds[i].revents != 0;
    }
    return ready;
}

// select and pselect: `call` runs the C library's select on copies of the sets in which each
// node in exceptfds is replaced by its hidden descriptor in readfds.
template <class Call>
int selectNodes(int count, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, Call call) {
    std::vector<std::pair<int, int>> mapped;  // node, hidden descriptor
    for (int fd = 0; exceptfds && fd < count; ++fd) {
        if (!FD_ISSET(fd, exceptfds)) continue;
        const int hidden = eventDescriptor(fd);
        if (hidden != -1 && hidden < FD_SETSIZE) mapped.emplace_back(fd, hidden);
    }
    if (mapped.empty()) return call(count, readfds, writefds, exceptfds);
    fd_set r, w, e;
    FD_ZERO(&r);
    FD_ZERO(&w);
    if (readfds) r = *readfds;
    if (writefds) w = *writefds;
    e = *exceptfds;
    int all = count;
    for (const auto& [fd, hidden] : mapped) {
        FD_CLR(fd, &e);
        FD_SET(hidden, &r);
        all = std::max(all, hidden + 1);
    }
    const int result = call(all, &r, &w, &e);
    if (result < 0) return result;
    for (const auto& [fd, hidden] : mapped) {
        if (FD_ISSET(hidden, &r)) FD_SET(fd, &e);
        if (!(readfds && FD_ISSET(hidden, readfds))) FD_CLR(hidden, &r);
    }
    int ready = 0;
    for (int fd = 0; fd < count; ++fd)
        ready += (readfds && FD_ISSET(fd, &r)) + (writefds && FD_ISSET(fd, &w)) + FD_ISSET(fd, &e);
    if (readfds) *readfds = r;
    if (writefds) *writefds = w;
    *exceptfds = e;
    return ready;
}

// epoll: a node registered for EPOLLPRI has its hidden descriptor registered in the same epoll
// instance, carrying the address of its record as data. Events of that kind are turned back into
// EPOLLPRI of the node with the data the caller registered. The record is the library's own
// allocation, so no caller's data equals its address.
struct Registration {
    int hidden;
    epoll_data_t data;
};

class EpollRegistry {
public:
    // After the C library accepted `op` on `node` in `epfd`: registers, changes or removes the
    // node's hidden descriptor to match.
    void update(int epfd, int op, int node, int hidden, const struct epoll_event* event) {
        static auto ctl = next<int (*)(int, int, int, struct epoll_event*)>("epoll_ctl");
        std::lock_guard<std::mutex> lock(_mutex);
        const auto key = std::make_pair(epfd, node);
        auto it = _registrations.find(key);
        const bool wantsEvents = op != EPOLL_CTL_DEL && event && (event->events & EPOLLPRI);
        if (!wantsEvents) {
            if (it != _registrations.end()) {
                ctl(epfd, EPOLL_CTL_DEL, it->second->hidden, nullptr);
                _registrations.erase(it);
            }
            return;
        }
        const bool added = it == _registrations.end();
        if (added) it = _registrations.emplace(key, std::make_unique<Registration>()).first;
        it->second->hidden = hidden;
        it->second->data = event->data;
        struct epoll_event hiddenEvent {};
        hiddenEvent.events = EPOLLIN | (event->events & (EPOLLET | EPOLLONESHOT));
        hiddenEvent.data.ptr = it->second.get();
        ctl(epfd, added ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, hidden, &hiddenEvent);
    }

    // Rewrites the `count` events epoll_wait returned for `epfd`; returns how many remain.
    int translate(int epfd, struct epoll_event* events, int count) {
        std::lock_guard<std::mutex> lock(_mutex);
        int kept = 0;
        for (int i = 0; i < count; ++i) {
            const Registration* record = find(epfd, events[i].data.ptr);
            if (!record) {
                events[kept++] = events[i];
                continue;
            }
            // Joined with the node's own event from this call, if there is one.
            int same = 0;
            while (same < kept && events[same].data.u64 != record->data.u64) ++same;
            if (same == kept) events[kept++] = epoll_event{0, record->data};
            events[same].events |= EPOLLPRI;
        }
        return kept;
    }

    // Forgets the records of a node or an epoll instance that was closed.
    void forget(int fd) {
        std::lock_guard<std::mutex> lock(_mutex);
        for (auto it = _registrations.begin(); it != _registrations.end();)
            it = it->first.first == fd || it->first.second == fd ? _registrations.erase(it) : std::next(it);
    }

private:
    const Registration* find(int epfd, const void* address) const {
        for (const auto& [key, record] : _registrations)
            if (key.first == epfd && record.get() == address) return record.get();
        return nullptr;
    }

    std::mutex _mutex;
    std::map<std::pair<int, int>, std::unique_ptr<Registration>> _registrations;  // (epfd, node)
};

EpollRegistry& epollRegistry() {
    static auto* instance = new EpollRegistry;  // in use until the process exits
    return *instance;
}

}  // namespace

namespace ruvo::capture::simcam {

void forgetWaits(int fd) { epollRegistry().forget(fd); }

}  // namespace ruvo::capture::simcam

extern "C" {

int select(int count, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, struct timeval* timeout) {
    static auto f = next<int (*)(int, fd_set*, fd_set*, fd_set*, struct timeval*)>("select");
    return selectNodes(count, readfds, writefds, exceptfds,
                       [&](int n, fd_set* r, fd_set* w, fd_set* e) { return f(n, r, w, e, timeout); });
}

int pselect(int count, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, const struct timespec* timeout,
            const sigset_t* mask) {
    static auto f = next<int (*)(int, fd_set*, fd_set*, fd_set*, const struct timespec*, const sigset_t*)>("pselect");
    return selectNodes(count, readfds, writefds, exceptfds,
                       [&](int n, fd_set* r, fd_set* w, fd_set* e) { return f(n, r, w, e, timeout, mask); });
}

int poll(struct pollfd* fds, nfds_t count, int timeout) {
    static auto f = next<int (*)(struct pollfd*, nfds_t, int)>("poll");
    return pollNodes(fds, count, [&](struct pollfd* all, nfds_t n) { return f(all, n, timeout); });
}

int ppoll(struct pollfd* fds, nfds_t count, const struct timespec* timeout, const sigset_t* mask) {
    static auto f = next<int (*)(struct pollfd*, nfds_t, const struct timespec*, const sigset_t*)>("ppoll");
    return pollNodes(fds, count, [&](struct pollfd* all, nfds_t n) { return f(all, n, timeout, mask); });
}

int epoll_ctl(int epfd, int op, int fd, struct epoll_event* event) {
    static auto f = next<int (*)(int, int, int, struct epoll_event*)>("epoll_ctl");
    const int result = f(epfd, op, fd, event);
    const int hidden = eventDescriptor(fd);
    if (result == 0 && hidden != -1) epollRegistry().update(epfd, op, fd, hidden, event);
    return result;
}

int epoll_wait(int epfd, struct epoll_event* events, int count, int timeout) {
    static auto f = next<int (*)(int, struct epoll_event*, int, int)>("epoll_wait");
    const int result = f(epfd, events, count, timeout);
    return result > 0 ? epollRegistry().translate(epfd, events, result) : result;
}

int epoll_pwait(int epfd, struct epoll_event* events, int count, int timeout, const sigset_t* mask) {
    static auto f = next<int (*)(int, struct epoll_event*, int, int, const sigset_t*)>("epoll_pwait");
    const int result = f(epfd, events, count, timeout, mask);
    return result > 0 ? epollRegistry().translate(epfd, events, result) : result;
}

}  // extern "C"
