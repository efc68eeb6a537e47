// Owners of what a function must give back on every path: descriptors, files, heap texts and
// locked mutexes. Everything here is inline and may be used from any thread.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <pthread.h>
#include <unistd.h>
#include <utility>

struct FreeMemory {
    void operator()(void *memory) const { free(memory); }
};
// A heap text from strdup() and the like; get() may be null.
using OwnedText = std::unique_ptr<char, FreeMemory>;

struct CloseFile {
    void operator()(FILE *file) const { fclose(file); }
};
using OwnedFile = std::unique_ptr<FILE, CloseFile>;

// Owns a file descriptor; -1 means none.
class UniqueFd {
    int fd_;

  public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~UniqueFd() {
        if (fd_ >= 0)
            close(fd_);
    }
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    explicit operator bool() const { return fd_ >= 0; }
};

// A mutex that its holder may lock again. For file-level variables; it is never destroyed.
struct RecursiveMutex {
    pthread_mutex_t mutex;
    RecursiveMutex() {
        pthread_mutexattr_t attributes;
        pthread_mutexattr_init(&attributes);
        pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&mutex, &attributes);
        pthread_mutexattr_destroy(&attributes);
    }
};

// Holds a mutex for the life of a scope.
class MutexGuard {
    pthread_mutex_t &mutex_;

  public:
    explicit MutexGuard(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    explicit MutexGuard(RecursiveMutex &mutex) : MutexGuard(mutex.mutex) {}
    ~MutexGuard() { pthread_mutex_unlock(&mutex_); }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;
};

// Holds a mutex for the life of a scope if nobody else does; then it is true.
class MutexAttempt {
    pthread_mutex_t &mutex_;
    const bool is_held_;

  public:
    explicit MutexAttempt(pthread_mutex_t &mutex)
        : mutex_(mutex), is_held_(pthread_mutex_trylock(&mutex_) == 0) {}
    ~MutexAttempt() {
        if (is_held_)
            pthread_mutex_unlock(&mutex_);
    }
    explicit operator bool() const { return is_held_; }
    MutexAttempt(const MutexAttempt &) = delete;
    MutexAttempt &operator=(const MutexAttempt &) = delete;
};
