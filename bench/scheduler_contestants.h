// The event loops that scheduler_bench compares, each behind the same operations:
//   watch(station)          pass the station's token on whenever it is readable
//   settle()                make the kernel know what is watched so far
//   serve(ring)             run until enough tokens were passed on
//   adopt(fd)               take the descriptor that the next three work on
//   add(), remove()         watch the adopted descriptor, which is never ready, for reading; stop
//   changeMode(alsoWrite)   watch it for reading, or for reading and writing
//   startTimer(ms), serveTimers(), removeTimers()
//                           one-shot timers: any number started, all fired, all removed
// Every loop does the same system calls for an event and is used the way its manual suggests for
// speed. What differs between loops, and cannot be made equal, is said at each of them.
#pragma once

#include <ev.h>
namespace contestants {
// libevent defines macros of the same names with other values.
constexpr int kLibevRead = EV_READ;
constexpr int kLibevWrite = EV_WRITE;
}  // namespace contestants

#include <event2/event.h>
#include <event2/event_struct.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>
#include <uv.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <vector>

#include <kest/utils/scheduler.h>

namespace contestants {

// A benchmark that measures a failure is worse than none.
inline void require(bool condition, const char* what) {
    if (condition) return;
    perror(what);
    abort();
}

struct Ring {
    unsigned long passed = 0;
    unsigned long target = 0;
    bool done() const { return passed >= target; }
};

// One end of a socket pair, and the far end of the next pair in the ring.
struct Station {
    int in;
    int out;
    Ring* ring;
    void* loop;
};

// The work of an event, the same for everybody: one read, one write.
inline void passToken(Station& station) {
    char token = 0;
    require(read(station.in, &token, 1) == 1, "read");
    require(write(station.out, &token, 1) == 1, "write");
    ++station.ring->passed;
}

class Ours {
  public:
    Ours() { require(scheduler_.Init(), "Init"); }

    void watch(Station& station) {
        const auto onReadable = [](int, int, void* arg) {
            passToken(*static_cast<Station*>(arg));
            return true;
        };
        require(scheduler_.AddIOTask(station.in, EPOLLIN, onReadable, &station) != 0, "AddIOTask");
    }
    void settle() {}
    void serve(const Ring& ring) {
        while (!ring.done())
            scheduler_.Service();
    }

    void adopt(int fd) { fd_ = fd; }
    void add() {
        id_ = scheduler_.AddIOTask(
            fd_, EPOLLIN, [](int, int, void*) { return true; }, nullptr);
        require(id_ != 0, "AddIOTask");
    }
    void remove() { require(scheduler_.RemoveIOTask(id_), "RemoveIOTask"); }
    void changeMode(bool alsoWrite) {
        const int mode = alsoWrite ? EPOLLIN | EPOLLOUT : EPOLLIN;
        require(scheduler_.ChangeIOTaskMode(id_, mode), "ChangeIOTaskMode");
    }

    void startTimer(unsigned int ms) {
        const auto onExpiry = [](unsigned long long, void* arg) {
            ++*static_cast<size_t*>(arg);
            return true;
        };
        timers_.push_back(scheduler_.AddTimerTask(ms, 0, onExpiry, &fired_));
        require(timers_.back() != 0, "AddTimerTask");
    }
    void serveTimers() {
        while (fired_ < timers_.size())
            scheduler_.Service();
        fired_ = 0;
    }
    void removeTimers() {
        for (const unsigned long long id : timers_)
            require(scheduler_.RemoveTimerTask(id), "RemoveTimerTask");
        timers_.clear();
    }

  private:
    kest::utils::Scheduler scheduler_;
    int fd_ = -1;
    unsigned long long id_ = 0;
    std::vector<unsigned long long> timers_;
    size_t fired_ = 0;
};

// The least that a program can do: epoll, timerfd and a loop written for this one purpose. With
// `Pass` an add, change or remove is followed by a wait that finds nothing, as the loops with
// deferred kernel calls need it; it shows how much of their figure is that wait.
template <bool Pass>
class BareEpoll {
  public:
    BareEpoll() { require(epoll_ >= 0, "epoll_create1"); }
    ~BareEpoll() { close(epoll_); }
    BareEpoll(const BareEpoll&) = delete;
    BareEpoll& operator=(const BareEpoll&) = delete;

    void watch(Station& station) { control(EPOLL_CTL_ADD, station.in, EPOLLIN, &station); }
    void settle() {}
    void serve(const Ring& ring) {
        while (!ring.done()) {
            epoll_event ready[kRoom];
            const int count = epoll_wait(epoll_, ready, kRoom, -1);
            for (int i = 0; i < count; ++i)
                passToken(*static_cast<Station*>(ready[i].data.ptr));
        }
    }

    void adopt(int fd) { fd_ = fd; }
    void add() {
        control(EPOLL_CTL_ADD, fd_, EPOLLIN, this);
        pass();
    }
    void remove() {
        control(EPOLL_CTL_DEL, fd_, 0, nullptr);
        pass();
    }
    void changeMode(bool alsoWrite) {
        control(EPOLL_CTL_MOD, fd_, alsoWrite ? EPOLLIN | EPOLLOUT : EPOLLIN, this);
        pass();
    }

    void startTimer(unsigned int ms) {
        const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
        require(fd >= 0, "timerfd_create");
        itimerspec schedule = {};
        schedule.it_value.tv_sec = static_cast<time_t>(ms / 1000);
        schedule.it_value.tv_nsec = static_cast<long>(ms % 1000) * 1000000;
        require(timerfd_settime(fd, 0, &schedule, nullptr) == 0, "timerfd_settime");
        epoll_event event = {};
        event.events = EPOLLIN;
        event.data.fd = fd;
        require(epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) == 0, "epoll_ctl");
        timers_.push_back(fd);
    }
    void serveTimers() {
        size_t fired = 0;
        while (fired < timers_.size()) {
            epoll_event ready[kRoom];
            const int count = epoll_wait(epoll_, ready, kRoom, -1);
            for (int i = 0; i < count; ++i) {
                uint64_t expiries = 0;
                require(read(ready[i].data.fd, &expiries, sizeof(expiries)) > 0, "read");
                ++fired;
            }
        }
    }
    void removeTimers() {
        for (const int fd : timers_) {
            control(EPOLL_CTL_DEL, fd, 0, nullptr);
            close(fd);
        }
        timers_.clear();
    }

  private:
    static constexpr int kRoom = 8;  // as ours

    void control(int operation, int fd, uint32_t events, void* data) const {
        epoll_event event = {};
        event.events = events;
        event.data.ptr = data;
        require(epoll_ctl(epoll_, operation, fd, &event) == 0, "epoll_ctl");
    }
    void pass() const {
        epoll_event ready[kRoom];
        if (Pass) require(epoll_wait(epoll_, ready, kRoom, 0) == 0, "epoll_wait");
    }

    const int epoll_ = epoll_create1(EPOLL_CLOEXEC);
    int fd_ = -1;
    std::vector<int> timers_;
};

// libevent calls the kernel at once. With `Allocating` its add and remove take and free the memory
// of the event as well, as ours do; without, the caller's event is used again and again.
template <bool Allocating>
class Libevent {
  public:
    Libevent() {
        event_config* config = event_config_new();
        event_config_set_flag(config, EVENT_BASE_FLAG_NOLOCK);
        base_ = event_base_new_with_config(config);
        event_config_free(config);
        require(base_ != nullptr && strcmp(event_base_get_method(base_), "epoll") == 0, "libevent");
    }
    ~Libevent() {
        for (event* const watcher : stations_)
            event_free(watcher);
        if (adopted_ != nullptr) event_free(adopted_);
        if (writable_ != nullptr) event_free(writable_);
        event_base_free(base_);
    }
    Libevent(const Libevent&) = delete;
    Libevent& operator=(const Libevent&) = delete;

    void watch(Station& station) {
        station.loop = base_;
        const auto onReadable = [](evutil_socket_t, short, void* arg) {
            auto& ready = *static_cast<Station*>(arg);
            passToken(ready);
            if (ready.ring->done()) event_base_loopbreak(static_cast<event_base*>(ready.loop));
        };
        stations_.push_back(
            event_new(base_, station.in, EV_READ | EV_PERSIST, onReadable, &station));
        require(event_add(stations_.back(), nullptr) == 0, "event_add");
    }
    void settle() {}
    void serve(const Ring& /*ring*/) { event_base_loop(base_, 0); }

    void adopt(int fd) {
        fd_ = fd;
        if (!Allocating) adopted_ = event_new(base_, fd, EV_READ | EV_PERSIST, nothing, nullptr);
        writable_ = event_new(base_, fd, EV_WRITE | EV_PERSIST, nothing, nullptr);
    }
    void add() {
        if (Allocating) adopted_ = event_new(base_, fd_, EV_READ | EV_PERSIST, nothing, nullptr);
        require(event_add(adopted_, nullptr) == 0, "event_add");
    }
    void remove() {
        if (Allocating) {
            event_free(adopted_);
            adopted_ = nullptr;
        } else {
            require(event_del(adopted_) == 0, "event_del");
        }
    }
    // A second event on the same descriptor costs one EPOLL_CTL_MOD. To change the mask of the one
    // event it would have to be deleted and added.
    void changeMode(bool alsoWrite) {
        const int result = alsoWrite ? event_add(writable_, nullptr) : event_del(writable_);
        require(result == 0, "event_add or event_del");
    }

    void startTimer(unsigned int ms) {
        const auto onExpiry = [](evutil_socket_t, short, void*) {};
        timers_.emplace_back();
        evtimer_assign(&timers_.back(), base_, onExpiry, nullptr);
        const timeval delay = {static_cast<time_t>(ms / 1000),
                               static_cast<suseconds_t>(ms % 1000) * 1000};
        require(evtimer_add(&timers_.back(), &delay) == 0, "evtimer_add");
    }
    void serveTimers() { event_base_loop(base_, 0); }  // until none is pending
    void removeTimers() {
        for (event& timer : timers_)
            evtimer_del(&timer);
        timers_.clear();
    }

  private:
    static void nothing(evutil_socket_t, short, void*) {}

    event_base* base_ = nullptr;
    std::deque<event*> stations_;
    std::deque<event> timers_;
    int fd_ = -1;
    event* adopted_ = nullptr;
    event* writable_ = nullptr;
};

// libuv tells the kernel of a new or changed watcher in its next pass, and of a removed one at
// once. A handle's memory may be used again only after a pass, so without `Pass` one handle is
// started and stopped over and over.
template <bool Pass>
class Libuv {
  public:
    Libuv() { require(uv_loop_init(&loop_) == 0, "uv_loop_init"); }
    ~Libuv() {
        const auto closeOne = [](uv_handle_t* handle, void*) {
            if (uv_is_closing(handle) == 0) uv_close(handle, nullptr);
        };
        uv_walk(&loop_, closeOne, nullptr);
        uv_run(&loop_, UV_RUN_DEFAULT);
        require(uv_loop_close(&loop_) == 0, "uv_loop_close");
    }
    Libuv(const Libuv&) = delete;
    Libuv& operator=(const Libuv&) = delete;

    void watch(Station& station) {
        const auto onReadable = [](uv_poll_t* handle, int, int) {
            auto& ready = *static_cast<Station*>(handle->data);
            passToken(ready);
            if (ready.ring->done()) uv_stop(handle->loop);
        };
        uv_poll_t& handle = stations_.emplace_back();
        require(uv_poll_init(&loop_, &handle, station.in) == 0, "uv_poll_init");
        handle.data = &station;
        require(uv_poll_start(&handle, UV_READABLE, onReadable) == 0, "uv_poll_start");
    }
    void settle() { uv_run(&loop_, UV_RUN_NOWAIT); }
    void serve(const Ring& /*ring*/) { uv_run(&loop_, UV_RUN_DEFAULT); }

    void adopt(int fd) {
        fd_ = fd;
        if (!Pass) require(uv_poll_init(&loop_, &adopted_, fd_) == 0, "uv_poll_init");
    }
    void add() {
        if (Pass) require(uv_poll_init(&loop_, &adopted_, fd_) == 0, "uv_poll_init");
        changeMode(false);
    }
    void remove() {
        if (Pass) {
            uv_close(reinterpret_cast<uv_handle_t*>(&adopted_), nullptr);
            pass();
        } else {
            require(uv_poll_stop(&adopted_) == 0, "uv_poll_stop");
        }
    }
    void changeMode(bool alsoWrite) {
        const int mode = alsoWrite ? UV_READABLE | UV_WRITABLE : UV_READABLE;
        require(uv_poll_start(&adopted_, mode, [](uv_poll_t*, int, int) {}) == 0, "uv_poll_start");
        pass();
    }

    void startTimer(unsigned int ms) {
        uv_timer_t& timer = timers_.emplace_back();
        uv_timer_init(&loop_, &timer);
        require(uv_timer_start(
                    &timer, [](uv_timer_t*) {}, ms, 0) == 0,
                "uv_timer_start");
    }
    void serveTimers() { uv_run(&loop_, UV_RUN_DEFAULT); }  // until none is active
    void removeTimers() {
        for (uv_timer_t& timer : timers_)
            uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
        uv_run(&loop_, UV_RUN_NOWAIT);
        timers_.clear();
    }

  private:
    void pass() {
        if (Pass) settle();
    }

    uv_loop_t loop_;
    std::deque<uv_poll_t> stations_;
    std::deque<uv_timer_t> timers_;
    int fd_ = -1;
    uv_poll_t adopted_;
};

// libev notes all changes and tells the kernel in its next pass; of a watcher that is gone it does
// not tell at all, but waits for the descriptor to be closed or to be reported once more.
template <bool Pass>
class Libev {
  public:
    Libev() : loop_(ev_loop_new(EVBACKEND_EPOLL | EVFLAG_NOENV)) {
        require(loop_ != nullptr && ev_backend(loop_) == EVBACKEND_EPOLL, "ev_loop_new");
    }
    ~Libev() { ev_loop_destroy(loop_); }
    Libev(const Libev&) = delete;
    Libev& operator=(const Libev&) = delete;

    void watch(Station& station) {
        const auto onReadable = [](struct ev_loop* loop, ev_io* watcher, int) {
            auto& ready = *static_cast<Station*>(watcher->data);
            passToken(ready);
            if (ready.ring->done()) ev_break(loop, EVBREAK_ONE);
        };
        ev_io& watcher = stations_.emplace_back();
        ev_io_init(&watcher, onReadable, station.in, kLibevRead);
        watcher.data = &station;
        ev_io_start(loop_, &watcher);
    }
    void settle() { ev_run(loop_, EVRUN_NOWAIT); }
    void serve(const Ring& /*ring*/) { ev_run(loop_, 0); }

    void adopt(int fd) { ev_io_init(&adopted_, nothing, fd, kLibevRead); }
    void add() {
        ev_io_start(loop_, &adopted_);
        pass();
    }
    void remove() {
        ev_io_stop(loop_, &adopted_);
        pass();
    }
    void changeMode(bool alsoWrite) {
        ev_io_stop(loop_, &adopted_);
        ev_io_set(&adopted_, adopted_.fd, alsoWrite ? kLibevRead | kLibevWrite : kLibevRead);
        add();
    }

    void startTimer(unsigned int ms) {
        ev_timer& timer = timers_.emplace_back();
        ev_timer_init(
            &timer, [](struct ev_loop*, ev_timer*, int) {}, ms / 1000.0, 0.0);
        ev_timer_start(loop_, &timer);
    }
    void serveTimers() { ev_run(loop_, 0); }  // until none is active
    void removeTimers() {
        for (ev_timer& timer : timers_)
            ev_timer_stop(loop_, &timer);
        timers_.clear();
    }

  private:
    static void nothing(struct ev_loop*, ev_io*, int) {}
    void pass() {
        if (Pass) settle();
    }

    struct ev_loop* const loop_;
    std::deque<ev_io> stations_;
    std::deque<ev_timer> timers_;
    ev_io adopted_;
};

}  // namespace contestants
