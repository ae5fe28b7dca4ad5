#include "faults/faults.h"

#include <curl/curl.h>
#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <arpa/inet.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <utility>

// A wrapper that fails when it is its turn, and otherwise passes its arguments on. A watch gets the
// last arguments. Functions with an optional argument are declared with it: it is passed in the
// same way.
#define WATCHED(result, name, parameters, failure, arguments, told, also_told)          \
    extern "C" result __real_##name parameters;                                         \
    extern "C" result __wrap_##name parameters                                          \
    {                                                                                   \
        const int error = Faults::self().next_call(Faults::id(#name), told, also_told); \
        return error != 0 ? (failure) : __real_##name arguments;                        \
    }
#define WRAP(result, name, parameters, failure, arguments) \
    WATCHED(result, name, parameters, failure, arguments, 0, 0)
#define MAPPED(path) Faults::self().mapped(path).data()

// With 64-bit offsets and times, the C library has other names for some functions.
#define LINKED_AS(name, symbol, result, parameters)                   \
    extern "C" result __real_##name parameters asm("__real_" symbol); \
    extern "C" result __wrap_##name parameters asm("__wrap_" symbol);
#if __SIZEOF_POINTER__ == 4  // times would have 32 bits
#define TIME64(usual, widened) widened
#else
#define TIME64(usual, widened) usual
#endif
LINKED_AS(open, "open64", int, (const char*, int, mode_t))
LINKED_AS(stat, TIME64("stat64", "__stat64_time64"), int, (const char*, struct stat*))
LINKED_AS(fcntl, TIME64("fcntl64", "__fcntl_time64"), int, (int, int, long))
LINKED_AS(time, TIME64("time", "__time64"), time_t, (time_t*))
LINKED_AS(gettimeofday, TIME64("gettimeofday", "__gettimeofday64"), int, (timeval*, void*))

static useconds_t cut_pause(useconds_t pause)
{
    return Faults::self().skip_pauses ? 1 : pause;
}

// clang-format off
WRAP(int, open, (const char* path, int flags, mode_t mode), -1, (MAPPED(path), flags, mode))
WRAP(ssize_t, write, (int fd, const void* data, size_t size),
     error == Faults::SHORT_COUNT ? __real_write(fd, data, size / 2) : -1, (fd, data, size))
WRAP(int, fsync, (int fd), -1, (fd))
WRAP(int, stat, (const char* path, struct stat* info), -1, (MAPPED(path), info))
WRAP(int, rename, (const char* from, const char* to), -1, (MAPPED(from), MAPPED(to)))
WRAP(int, remove, (const char* path), -1, (MAPPED(path)))
WRAP(int, mkdir, (const char* path, mode_t mode), -1, (MAPPED(path), mode))
WATCHED(int, chown, (const char* path, uid_t user, gid_t group), -1, (MAPPED(path), user, group),
        reinterpret_cast<long>(path), 1000L * user + group)
WRAP(DIR*, opendir, (const char* path), nullptr, (MAPPED(path)))
WRAP(int, access, (const char* path, int mode), -1, (MAPPED(path), mode))
WRAP(int, socket, (int domain, int type, int protocol), -1, (domain, type, protocol))
WRAP(int, fcntl, (int fd, int command, long argument), -1, (fd, command, argument))
WATCHED(int, poll, (pollfd* set, nfds_t count, int timeout), -1,
        (set, count, Faults::watch ? 0 : timeout), timeout, 0)
WRAP(ssize_t, recvfrom, (int fd, void* data, size_t size, int flags, sockaddr* from,
     socklen_t* length), -1, (fd, data, size, flags, from, length))
WRAP(int, pthread_create, (pthread_t* thread, const pthread_attr_t* how, void* (*entry)(void*),
     void* argument), error, (thread, how, entry, argument))
WRAP(int, pthread_mutex_init, (pthread_mutex_t* mutex, const pthread_mutexattr_t* how), error,
     (mutex, how))
WRAP(CURLcode, curl_global_init, (long flags), static_cast<CURLcode>(error), (flags))
WRAP(CURL*, curl_easy_init, (), nullptr, ())
WATCHED(CURLcode, curl_easy_setopt, (CURL* handle, CURLoption option, long value),
        static_cast<CURLcode>(error), (handle, option, value), option, value)
WRAP(CURLcode, curl_easy_perform, (CURL* handle), static_cast<CURLcode>(error), (handle))
WRAP(sighandler_t, signal, (int number, sighandler_t handler), SIG_ERR, (number, handler))
WRAP(uid_t, geteuid, (), static_cast<uid_t>(error), ())
WRAP(gid_t, getegid, (), static_cast<gid_t>(error), ())
WATCHED(int, usleep, (useconds_t pause), -1, (cut_pause(pause)), pause, 0)
// clang-format on

static time_t moved(time_t now)
{
    const Faults& faults = Faults::self();
    return (faults.clock_stands_at != 0 ? faults.clock_stands_at.load() : now) + faults.clock_shift;
}

extern "C" {

int __real_bind(int fd, const sockaddr* address, socklen_t size);
int __wrap_bind(int fd, const sockaddr* address, socklen_t size)
{
    Faults& faults = Faults::self();
    if (faults.next_call(Faults::id("bind")) != 0)
        return -1;
    if (!faults.any_port)
        return __real_bind(fd, address, size);
    sockaddr_in free = *reinterpret_cast<const sockaddr_in*>(address);
    const std::size_t second = faults.calls("bind") % 2 == 0;
    faults.asked_ports[second] = ntohs(free.sin_port);
    free.sin_port = 0;
    const int result = __real_bind(fd, reinterpret_cast<sockaddr*>(&free), size);
    getsockname(fd, reinterpret_cast<sockaddr*>(&free), &size);
    faults.ports[second] = ntohs(free.sin_port);
    return result;
}

int __wrap_asprintf(char** text, const char* format, ...)
{
    *text = reinterpret_cast<char*>(1);  // undefined after a failure: its use must crash
    if (Faults::self().next_call(Faults::id("asprintf")) != 0 || Faults::self().refuses_memory())
        return -1;
    va_list values;
    va_start(values, format);
    const int length = vasprintf(text, format, values);
    va_end(values);
    return length;
}

int __wrap_gettimeofday(timeval* now, void* zone)
{
    const int result = __real_gettimeofday(now, zone);
    now->tv_sec = moved(now->tv_sec);
    if (Faults::self().clock_stands_at != 0)
        now->tv_usec = 250000;
    errno = EDOM;  // as any call may set it: the caller must have read the earlier error by now
    return result;
}

time_t __wrap_time(time_t* /*result, null in all of the program*/)
{
    return moved(__real_time(nullptr));
}

}  // extern "C"

Faults::Watch Faults::watch;

void Faults::set_watch(Watch new_watch)
{
    watch = std::move(new_watch);
}

static Faults* shared(const char* path)
{
    const int fd = __real_open(path, O_RDWR | O_CLOEXEC, 0);
    if (ftruncate(fd, sizeof(Faults)) != 0)
        abort();
    void* const memory = mmap(nullptr, sizeof(Faults), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    return static_cast<Faults*>(memory);
}

Faults& Faults::self()
{
    static constinit Faults own;
    static constinit std::atomic<Faults*> used;
    if (used == nullptr) {
        const char* const path = std::getenv("VOXSTAT_FAULTS");
        used = path == nullptr ? &own : shared(path);
    }
    return *used;
}

void Faults::arm(std::string_view function, int n, int error, bool onwards)
{
    Calls& armed = switches[id(function)];
    armed.first = 0;
    armed.made = 0;
    armed.error = error;
    armed.end = onwards ? INT_MAX : n + 1;
    armed.first = n;
}

void Faults::refuse_memory(int n, int times)
{
    arm("allocation", n, ENOMEM);
    switches[id("allocation")].end = n + times;
}

void Faults::disarm()
{
    for (const std::string_view function : FUNCTIONS)
        arm(function, 0, 0);
}

int Faults::next_call(std::size_t function, long argument, long second)
{
    if (watch)
        watch(FUNCTIONS[function], argument, second);
    Calls& counted = switches[function];
    return counted.next_fails() ? errno = counted.error : 0;
}

bool Faults::Calls::next_fails()
{
    const int call = ++made;
    return first > 0 && first <= call && call < end;
}

bool Faults::refuses_memory()
{
    return calls("poll") > 0 && switches[id("allocation")].next_fails();
}

void Faults::set_root(const std::string& directory)
{
    root.at(directory.copy(root.data(), root.size() - 1)) = '\0';
}

std::array<char, 512> Faults::mapped(const char* path) const
{
    const std::string_view given = path;
    const bool fixed = given.starts_with("/var/log/") || given.starts_with("/home/build/");
    std::array<char, 512> result;
    std::snprintf(result.data(), result.size(), "%s%s", fixed ? root.data() : "", path);
    return result;
}
