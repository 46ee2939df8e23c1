#pragma once

// Clang's thread-safety annotations: which lock guards a member, which locks a function
// needs. The clang build checks them with -Wthread-safety; other compilers see nothing.

#if defined(__clang__)
#define SM_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define SM_THREAD_ANNOTATION(x)
#endif

// A type that is a lock (a capability).
#define CAPABILITY(name) SM_THREAD_ANNOTATION(capability(name))
// A type whose objects hold a lock for their scope.
#define SCOPED_CAPABILITY SM_THREAD_ANNOTATION(scoped_lockable)

// The member is read only holding `lock`, shared or exclusive, and written only holding
// it exclusively.
#define GUARDED_BY(lock) SM_THREAD_ANNOTATION(guarded_by(lock))
// The same for what the member points to; the pointer itself is not guarded.
#define PT_GUARDED_BY(lock) SM_THREAD_ANNOTATION(pt_guarded_by(lock))

// The caller holds the locks exclusively (REQUIRES) or at least shared (REQUIRES_SHARED).
#define REQUIRES(...) SM_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) SM_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
// The caller holds none of the locks: the function takes them itself.
#define EXCLUDES(...) SM_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

// The function takes or lets go of the locks (of `this` when none is named).
#define ACQUIRE(...) SM_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) SM_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) SM_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) SM_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
