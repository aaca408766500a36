// Names of clang's thread safety analysis; nothing under other compilers. Clang builds treat what
// it finds as errors: a guarded field touched without its lock, a lock taken twice or not given
// back, locks taken against their written order.
//
// The analysis knows no recursion. Nothing here takes a lock that it already holds; that locks are
// recursive is for hosts, whose Log may call back into the module.
#pragma once

#if defined(__clang__)
#define XJ_ANALYSED(attribute) __attribute__((attribute))
#else
#define XJ_ANALYSED(attribute)
#endif

#define CAPABILITY(kind) XJ_ANALYSED(capability(kind))        // a class whose objects are held
#define SCOPED_CAPABILITY XJ_ANALYSED(scoped_lockable)        // a class that holds one for a scope
#define GUARDED_BY(lock) XJ_ANALYSED(guarded_by(lock))        // a field: touched by holders only
#define PT_GUARDED_BY(lock) XJ_ANALYSED(pt_guarded_by(lock))  // what a pointer points to
#define ACQUIRED_BEFORE(...) XJ_ANALYSED(acquired_before(__VA_ARGS__))
#define ACQUIRE(...) XJ_ANALYSED(acquire_capability(__VA_ARGS__))
#define RELEASE(...) XJ_ANALYSED(release_capability(__VA_ARGS__))
#define REQUIRES(...) XJ_ANALYSED(requires_capability(__VA_ARGS__))  // called by holders only
#define EXCLUDES(...) XJ_ANALYSED(locks_excluded(__VA_ARGS__))       // never called by holders
#define ASSERT_CAPABILITY(...) XJ_ANALYSED(assert_capability(__VA_ARGS__))

// A thread, as something that code running on it holds: a field GUARDED_BY a role belongs to one
// thread, a function that REQUIRES it runs there. Costs nothing at run time.
class CAPABILITY("thread") CThreadRole {
  public:
    void Enter() const ASSERT_CAPABILITY(this) {}  // first thing on the thread
};
