#pragma once
// Records made in bulk over one environment: the service's addresses are found once, not twice
// a record (a history reply makes thousands).

#include <kestrelvue/Trip.h>

#include <cstddef>
#include <memory>
#include <new>
#include <string>
#include <utility>

namespace kestrelvue::detail {

/// std::allocator that may reach Trip's private constructor (it is the record's friend).
template <class T>
struct RecordAllocator {
    using value_type = T;
    RecordAllocator() = default;
    template <class U>
    explicit RecordAllocator(const RecordAllocator<U>& /*other*/) {}
    T* allocate(std::size_t n) { return std::allocator<T>().allocate(n); }
    void deallocate(T* p, std::size_t n) { std::allocator<T>().deallocate(p, n); }
    template <class U, class... Args>
    void construct(U* p, Args&&... args) {
        ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
    }
    template <class U>
    void destroy(U* p) {
        p->~U();
    }
    template <class U>
    bool operator==(const RecordAllocator<U>& /*other*/) const {
        return true;
    }
};

class TripFactory {
public:
    explicit TripFactory(const Environment& environment);
    /// A record as Trip(environment) makes it.
    std::shared_ptr<Trip> make() const;

private:
    const Environment& env_;
    const std::string& addDrivingScore_;
    const std::string& passedCoordinates_;
};

}  // namespace kestrelvue::detail
