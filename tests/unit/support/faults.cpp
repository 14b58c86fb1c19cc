// The stand-ins for system calls, and their switches.
#include "tests/unit/support/faults.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <ctime>

#include <fcntl.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

namespace FAULTS {

Fault fork;
Fault setsid;
Fault chdir;
Fault pipe2;
Fault popen;
Fault pthreadCreate;
Fault syscall;
Fault write;

std::atomic<int> lowestFreeAtSystem{INT_MAX};
std::atomic<int> lowestFreeAtPopen{INT_MAX};
std::atomic<int> lowestFreeAtThreadStart{INT_MAX};

void Fault::failAfter(int callsToPass, int error) {
    errorNumber = error;
    callsLeft = callsToPass;
}

void Fault::clear() {
    callsLeft = -1;
}

int Fault::next() {
    // Only one call sees the count at 0: it goes on below it and stays there.
    if (callsLeft < 0) {
        return 0;
    }
    return callsLeft.fetch_sub(1) == 0 ? errorNumber.load() : 0;
}

void clear() {
    for (Fault* const fault :
         {&fork, &setsid, &chdir, &pipe2, &popen, &pthreadCreate, &syscall, &write}) {
        fault->clear();
    }
    lowestFreeAtSystem = INT_MAX;
    lowestFreeAtPopen = INT_MAX;
    lowestFreeAtThreadStart = INT_MAX;
}

namespace {

thread_local bool recording = false;
thread_local bool reallySleeping = true;
thread_local std::vector<Sleep> recorded;

void startRecording(bool reallySleep) {
    recorded.clear();
    recording = true;
    reallySleeping = reallySleep;
}

void stopRecording() {
    recorded.clear();
    recording = false;
    reallySleeping = true;
}

/// Sets errno if this call is to fail.
bool fails(Fault& fault) {
    const int error = fault.next();
    if (error != 0) {
        errno = error;
    }
    return error != 0;
}

void noteLowestFree(std::atomic<int>& lowest) {
    const int number = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(number);
    lowest = std::min(lowest.load(), number);
}

} // namespace

SleepRecorder::SleepRecorder() {
    startRecording(false);
}

SleepRecorder::~SleepRecorder() {
    stopRecording();
}

const std::vector<Sleep>& SleepRecorder::sleeps() const {
    return recorded;
}

SleepWatcher::SleepWatcher() {
    startRecording(true);
}

SleepWatcher::~SleepWatcher() {
    stopRecording();
}

const std::vector<Sleep>& SleepWatcher::sleeps() const {
    return recorded;
}

} // namespace FAULTS

// The linker sends the calls of the code under test to the __wrap_ names, and gives the functions
// themselves the __real_ names.
using ThreadBody = void* (*)(void*);

pid_t realFork() __asm__("__real_fork");
pid_t realSetsid() __asm__("__real_setsid");
int realChdir(const char* path) __asm__("__real_chdir");
int realPipe2(int* ends, int flags) __asm__("__real_pipe2");
FILE* realPopen(const char* command, const char* mode) __asm__("__real_popen");
int realSystem(const char* command) __asm__("__real_system");
int realPthreadCreate(pthread_t* handle, const pthread_attr_t* attributes, ThreadBody body,
                      void* argument) __asm__("__real_pthread_create");
int realNanosleep(const timespec* request, timespec* remaining) __asm__("__real_nanosleep");
long realSyscall(long number, long first, long second, long third, long fourth, long fifth,
                 long sixth) __asm__("__real_syscall");
ssize_t realWrite(int descriptor, const void* bytes, size_t size) __asm__("__real_write");

pid_t standInFork() __asm__("__wrap_fork");
pid_t standInSetsid() __asm__("__wrap_setsid");
int standInChdir(const char* path) __asm__("__wrap_chdir");
int standInPipe2(int* ends, int flags) __asm__("__wrap_pipe2");
FILE* standInPopen(const char* command, const char* mode) __asm__("__wrap_popen");
int standInSystem(const char* command) __asm__("__wrap_system");
int standInPthreadCreate(pthread_t* handle, const pthread_attr_t* attributes, ThreadBody body,
                         void* argument) __asm__("__wrap_pthread_create");
int standInNanosleep(const timespec* request, timespec* remaining) __asm__("__wrap_nanosleep");
long standInSyscall(long number, long first, long second, long third, long fourth, long fifth,
                    long sixth) __asm__("__wrap_syscall");
ssize_t standInWrite(int descriptor, const void* bytes, size_t size) __asm__("__wrap_write");

pid_t standInFork() {
    return FAULTS::fails(FAULTS::fork) ? -1 : realFork();
}

pid_t standInSetsid() {
    return FAULTS::fails(FAULTS::setsid) ? -1 : realSetsid();
}

int standInChdir(const char* path) {
    return FAULTS::fails(FAULTS::chdir) ? -1 : realChdir(path);
}

int standInPipe2(int* ends, int flags) {
    return FAULTS::fails(FAULTS::pipe2) ? -1 : realPipe2(ends, flags);
}

int standInSystem(const char* command) {
    FAULTS::noteLowestFree(FAULTS::lowestFreeAtSystem);
    return realSystem(command);
}

FILE* standInPopen(const char* command, const char* mode) {
    FAULTS::noteLowestFree(FAULTS::lowestFreeAtPopen);
    return FAULTS::fails(FAULTS::popen) ? nullptr : realPopen(command, mode);
}

int standInPthreadCreate(pthread_t* handle, const pthread_attr_t* attributes, ThreadBody body,
                         void* argument) {
    FAULTS::noteLowestFree(FAULTS::lowestFreeAtThreadStart);
    const int error = FAULTS::pthreadCreate.next();
    return error != 0 ? error : realPthreadCreate(handle, attributes, body, argument);
}

int standInNanosleep(const timespec* request, timespec* remaining) {
    if (FAULTS::recording) {
        FAULTS::recorded.push_back({request->tv_sec, request->tv_nsec});
    }
    return FAULTS::reallySleeping ? realNanosleep(request, remaining) : 0;
}

long standInSyscall(long number, long first, long second, long third, long fourth, long fifth,
                    long sixth) {
    if (number == SYS_close_range && FAULTS::fails(FAULTS::syscall)) {
        return -1;
    }
    return realSyscall(number, first, second, third, fourth, fifth, sixth);
}

ssize_t standInWrite(int descriptor, const void* bytes, size_t size) {
    return FAULTS::fails(FAULTS::write) ? -1 : realWrite(descriptor, bytes, size);
}
