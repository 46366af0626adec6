#pragma once
// Mutexes and locks that clang's thread-safety analysis can follow.
//
// A member written `ORVALE_GUARDED_BY(mutex_)` may be touched only with `mutex_` held; a function
// written `ORVALE_REQUIRES(mutex_)` is called only with it held. Clang checks both at compile time
// under -Wthread-safety; other compilers see plain std::mutex wrappers and the macros vanish.
// The wrappers cost nothing at run time: each method is an inline call of the std one.
//
// A function handed a held UniqueLock `lock` over `mutex_` says what it does with it:
// - `ORVALE_REQUIRES(mutex_) ORVALE_RELEASE(lock)`: returns with it released. Callers see
//   `mutex_` released after the call; a path of the body that keeps it is an error.
// - `ORVALE_REQUIRES(mutex_, lock)`: may release and retake it, returns with it held.
// The analysis cannot tie `lock` to `mutex_` inside such a body, so it takes `mutex_` for held
// there even after `lock.unlock()`: the body must not touch guarded members once it unlocks.
//
// Thread safety: Mutex and SharedMutex may be used from any thread; a lock object belongs to the
// thread that made it, except that a UniqueLock may be moved to another.

#include <mutex>
#include <shared_mutex>
#include <utility>

#if defined(__clang__)
#define ORVALE_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ORVALE_THREAD_ANNOTATION(x)
#endif

#define ORVALE_CAPABILITY(name) ORVALE_THREAD_ANNOTATION(capability(name))
#define ORVALE_SCOPED_CAPABILITY ORVALE_THREAD_ANNOTATION(scoped_lockable)
#define ORVALE_GUARDED_BY(x) ORVALE_THREAD_ANNOTATION(guarded_by(x))
#define ORVALE_PT_GUARDED_BY(x) ORVALE_THREAD_ANNOTATION(pt_guarded_by(x))
#define ORVALE_REQUIRES(...) ORVALE_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define ORVALE_REQUIRES_SHARED(...) \
    ORVALE_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define ORVALE_EXCLUDES(...) ORVALE_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ORVALE_ACQUIRED_AFTER(...) ORVALE_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define ORVALE_ACQUIRE(...) ORVALE_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ORVALE_ACQUIRE_SHARED(...) ORVALE_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define ORVALE_TRY_ACQUIRE(...) ORVALE_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define ORVALE_RELEASE(...) ORVALE_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ORVALE_RELEASE_SHARED(...) ORVALE_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define ORVALE_ASSERT_CAPABILITY(x) ORVALE_THREAD_ANNOTATION(assert_capability(x))
#define ORVALE_NO_THREAD_SAFETY_ANALYSIS ORVALE_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace connector::common {

class ORVALE_CAPABILITY("mutex") Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ORVALE_ACQUIRE() { mutex_.lock(); }
    void unlock() ORVALE_RELEASE() { mutex_.unlock(); }
    bool try_lock() ORVALE_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

    // Tells the analysis that the caller holds this mutex where it cannot see the lock taken
    // (inside a lock object's own methods); checks nothing at run time.
    void assumeHeld() const ORVALE_ASSERT_CAPABILITY(this) {}

    std::mutex& native() { return mutex_; }

  private:
    std::mutex mutex_;
};

// Holds a Mutex for its whole scope.
class ORVALE_SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) ORVALE_ACQUIRE(mutex) : mutex_(mutex) { mutex.lock(); }
    ~MutexLock() ORVALE_RELEASE() { mutex_.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

  private:
    Mutex& mutex_;
};

// A std::unique_lock over a Mutex: unlocked and locked again within its scope, waited on
// through native(). It is a capability of its own as well as a scoped one so that a function
// can be declared to release the lock it is handed (`ORVALE_RELEASE(lock)`).
// The analysis does not follow a move: a lock moved from keeps its place in the analysis.
class ORVALE_SCOPED_CAPABILITY ORVALE_CAPABILITY("lock") UniqueLock {
  public:
    explicit UniqueLock(Mutex& mutex) ORVALE_ACQUIRE(mutex) : lock_(mutex.native()) {}
    // Not locked yet: the caller locks it later.
    UniqueLock(Mutex& mutex, std::defer_lock_t) ORVALE_EXCLUDES(mutex)
        : lock_(mutex.native(), std::defer_lock) {}
    ~UniqueLock() ORVALE_RELEASE() = default;
    UniqueLock(UniqueLock&&) noexcept = default;
    UniqueLock& operator=(UniqueLock&&) noexcept = default;

    void lock() ORVALE_ACQUIRE() { lock_.lock(); }
    void unlock() ORVALE_RELEASE() { lock_.unlock(); }
    bool owns_lock() const { return lock_.owns_lock(); }

    // For std::condition_variable::wait, which unlocks and relocks it unseen by the analysis.
    std::unique_lock<std::mutex>& native() { return lock_; }

  private:
    std::unique_lock<std::mutex> lock_;
};

// A reader-writer mutex: shared for lookups, exclusive for changes.
class ORVALE_CAPABILITY("mutex") SharedMutex {
  public:
    SharedMutex() = default;
    SharedMutex(const SharedMutex&) = delete;
    SharedMutex& operator=(const SharedMutex&) = delete;

    void lock() ORVALE_ACQUIRE() { mutex_.lock(); }
    void unlock() ORVALE_RELEASE() { mutex_.unlock(); }
    void lock_shared() ORVALE_ACQUIRE_SHARED() { mutex_.lock_shared(); }
    void unlock_shared() ORVALE_RELEASE_SHARED() { mutex_.unlock_shared(); }

  private:
    std::shared_mutex mutex_;
};

// Holds a SharedMutex exclusively; may release it before the end of its scope.
class ORVALE_SCOPED_CAPABILITY WriterLock {
  public:
    explicit WriterLock(SharedMutex& mutex) ORVALE_ACQUIRE(mutex) : mutex_(&mutex) { mutex.lock(); }
    ~WriterLock() ORVALE_RELEASE() {
        if (mutex_ != nullptr)
            mutex_->unlock();
    }
    WriterLock(const WriterLock&) = delete;
    WriterLock& operator=(const WriterLock&) = delete;

    void unlock() ORVALE_RELEASE() {
        mutex_->unlock();
        mutex_ = nullptr;
    }

  private:
    SharedMutex* mutex_;  // null once released
};

// Holds a SharedMutex shared for its whole scope.
class ORVALE_SCOPED_CAPABILITY ReaderLock {
  public:
    explicit ReaderLock(SharedMutex& mutex) ORVALE_ACQUIRE_SHARED(mutex) : mutex_(mutex) {
        mutex.lock_shared();
    }
    ~ReaderLock() ORVALE_RELEASE() { mutex_.unlock_shared(); }
    ReaderLock(const ReaderLock&) = delete;
    ReaderLock& operator=(const ReaderLock&) = delete;

  private:
    SharedMutex& mutex_;
};

}  // namespace connector::common
