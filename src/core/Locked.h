#pragma once
// The one way a field behind a lock is read or changed from outside the code that owns the lock:
// public accessors and the test harness alike. A read hands back a copy, so nothing guarded
// escapes the lock.

#include <mutex>
#include <utility>

namespace kestrelvue::detail {

/// `f()` with `mutex` held.
template <class Mutex, class F>
auto withLock(Mutex& mutex, F&& f) -> decltype(std::forward<F>(f)()) {
    std::lock_guard lock(mutex);
    return std::forward<F>(f)();
}

/// A copy of `field`, taken under `mutex`.
template <class Mutex, class T>
T lockedRead(Mutex& mutex, const T& field) {
    return withLock(mutex, [&field] { return field; });
}

/// `field` replaced by `value` under `mutex`.
template <class Mutex, class T, class V>
void lockedWrite(Mutex& mutex, T& field, V&& value) {
    withLock(mutex, [&] { field = std::forward<V>(value); });
}

}  // namespace kestrelvue::detail
