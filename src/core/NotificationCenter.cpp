#include <kestrelvue/NotificationCenter.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <vector>

namespace kestrelvue {

ObserverToken::ObserverToken(ObserverToken&& other) noexcept
    : center_(std::move(other.center_)), id_(other.id_) {
    other.id_ = 0;
}

ObserverToken& ObserverToken::operator=(ObserverToken&& other) noexcept {
    if (this != &other) {
        reset();
        center_ = std::move(other.center_);
        id_ = other.id_;
        other.id_ = 0;
    }
    return *this;
}

ObserverToken::~ObserverToken() {
    reset();
}

void ObserverToken::reset() {
    if (id_ != 0) {
        if (auto center = center_.lock()) center->removeById(id_);
        id_ = 0;
    }
}

NotificationCenter& NotificationCenter::defaultCenter() {
    // Never destroyed: handlers may still post from worker threads during process exit.
    static auto* center = new std::shared_ptr<NotificationCenter>(make());
    return **center;
}

std::shared_ptr<NotificationCenter> NotificationCenter::make() {
    return std::make_shared<NotificationCenter>();
}

namespace {
// The centres whose handlers this thread is calling now, innermost last.
thread_local std::vector<const NotificationCenter*> tDelivering;
}  // namespace

void NotificationCenter::addObserver(const void* observer, std::string name, Handler handler,
                                     const void* sender) {
    std::lock_guard lock(mutex_);
    entries_.push_back(Entry{nextId_++, observer, std::move(name), sender,
                             std::make_shared<const Handler>(std::move(handler)),
                             std::make_shared<Registration>()});
    generation_.fetch_add(1, std::memory_order_release);
}

ObserverToken NotificationCenter::addObserver(std::string name, Handler handler,
                                              const void* sender) {
    std::uint64_t id;
    {
        std::lock_guard lock(mutex_);
        id = nextId_++;
        entries_.push_back(Entry{id, nullptr, std::move(name), sender,
                                 std::make_shared<const Handler>(std::move(handler)),
                                 std::make_shared<Registration>()});
        generation_.fetch_add(1, std::memory_order_release);
    }
    return ObserverToken(weak_from_this(), id);
}

void NotificationCenter::removeObserver(const void* observer, std::optional<std::string> name) {
    if (observer == nullptr) return;
    removeWhere(
        [&](const Entry& e) { return e.observer == observer && (!name || e.name == *name); });
}

void NotificationCenter::removeById(std::uint64_t id) {
    removeWhere([&](const Entry& e) { return e.id == id; });
}

void NotificationCenter::removeWhere(const std::function<bool(const Entry&)>& match) {
    std::unique_lock lock(mutex_);
    std::vector<std::shared_ptr<Registration>> removed;
    std::erase_if(entries_, [&](const Entry& e) {
        if (!match(e)) return false;
        e.registration->alive = false;
        removed.push_back(e.registration);
        return true;
    });
    generation_.fetch_add(1, std::memory_order_release);
    // From inside a handler of this centre it does not wait: two handlers removing each other
    // would wait for ever. That is also the only way the caller itself can be inside a handler.
    if (std::find(tDelivering.begin(), tDelivering.end(), this) != tDelivering.end()) return;
    waiting_.fetch_add(1);
    idle_.wait(lock, [&] {
        return std::all_of(removed.begin(), removed.end(),
                           [](const auto& r) { return r->running.load() == 0; });
    });
    waiting_.fetch_sub(1);
}

void NotificationCenter::post(const std::string& name, const void* object, UserInfo userInfo) {
    post(Notification{name, object, std::move(userInfo)});
}

void NotificationCenter::post(const Notification& notification) {
    struct Target {
        std::shared_ptr<const Handler> handler;
        std::shared_ptr<Registration> registration;
    };
    // One list of targets per nesting depth of posts on this thread, emptied after each post but
    // keeping its capacity: a notification posted for every motion sample allocates nothing. A
    // deque, so that a deeper post adding a level leaves the outer levels' lists where they are.
    thread_local std::deque<std::vector<Target>> targetsByDepth;
    const std::size_t depth = tDelivering.size();
    if (targetsByDepth.size() <= depth) targetsByDepth.resize(depth + 1);
    std::vector<Target>& targets = targetsByDepth[depth];
    struct Clear {
        std::vector<Target>& list;
        ~Clear() { list.clear(); }  // handlers and registrations end with the post, as before
    } clear{targets};
    {
        std::lock_guard lock(mutex_);
        for (const Entry& e : entries_) {
            if (e.name == notification.name &&
                (e.sender == nullptr || e.sender == notification.object)) {
                targets.push_back({e.handler, e.registration});
            }
        }
    }
    if (targets.empty()) return;
    tDelivering.push_back(this);
    for (const Target& t : targets) {
        {
            // Skip observers removed by an earlier handler of this same post.
            std::lock_guard lock(mutex_);
            if (!t.registration->alive) continue;
            t.registration->running.fetch_add(1);
        }
        (*t.handler)(notification);
        // Only a removal that waits needs to hear of it (the lock closes the gap between its
        // check and its wait).
        if (t.registration->running.fetch_sub(1) == 1 && waiting_.load() > 0) {
            std::lock_guard lock(mutex_);
            idle_.notify_all();
        }
    }
    tDelivering.pop_back();
}

std::size_t NotificationCenter::observerCount(const std::string& name) const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::count_if(entries_.begin(), entries_.end(),
                                                  [&](const Entry& e) { return e.name == name; }));
}

}  // namespace kestrelvue
