// Handles, change notifications and reactors.
//
// Synopsis
//   Ulo::Ptr<T>, Ulo::Ptr<const T>       reference-counted handles (std::shared_ptr)
//   Ulo::Notifier<Args...> changed;      an observable: changed.notify(args...) calls every
//   subscriber Ulo::Subscription s = changed.subscribe(callback);   unsubscribes when destroyed
//   class MySm : public Ulo::Reactor     owns its subscriptions; watch(notifier, callback);
//   sm.hasNotificationActiveIs(false)    the reactor ignores notifications until switched back on
//
// Notifications are synchronous: notify() returns after every subscriber has run, on the caller's
// thread, in subscription order. A subscriber may subscribe or unsubscribe anything (itself
// included) while being notified; subscribers added during a notification are first called by the
// next one. notify() allocates nothing, so it can sit on a hot path.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace Ulo {

template <class T>
using Ptr = std::shared_ptr<T>;

namespace detail {

class SubscriberList {
 public:
   struct Entry {
      uint64_t id;
      bool alive;
      std::function<void(const void*)> call;  // receives a pointer to the argument tuple
   };
   uint64_t add(std::function<void(const void*)> call) {
      entries_.push_back(std::make_unique<Entry>(Entry{++lastId_, true, std::move(call)}));
      return lastId_;
   }
   // A subscriber removed while notifications run stays allocated (it may be the one running)
   // and is dropped once the outermost notification has finished.
   void remove(uint64_t id) {
      for (auto& e : entries_) {
         if (e->id == id && e->alive) {
            e->alive = false;
            ++dead_;
         }
      }
      if (depth_ == 0) compact();
   }
   bool empty() const { return entries_.empty(); }
   bool notifying() const { return depth_ > 0; }
   // The notifier that owned the list was destroyed by one of its subscribers: the list keeps
   // itself until the outermost notification has finished.
   void keepSelf(std::shared_ptr<SubscriberList> self) { self_ = std::move(self); }
   void notify(const void* args) {
      // A subscriber may throw (a test's assertion handler does); the list must stay usable.
      struct Depth {
         SubscriberList& l;
         explicit Depth(SubscriberList& list) : l(list) { ++l.depth_; }
         ~Depth() {
            if (--l.depth_ != 0) return;
            l.compact();
            // Last: this may destroy the list.
            std::shared_ptr<SubscriberList> self = std::move(l.self_);
         }
      } depth(*this);
      const size_t n = entries_.size();  // late subscribers wait for the next notification
      for (size_t i = 0; i < n; ++i) {
         Entry* e = entries_[i].get();  // stable even if a subscriber grows the list
         if (e->alive) e->call(args);
      }
   }
   size_t size() const {
      size_t live = 0;
      for (const auto& e : entries_)
         live += e->alive;
      return live;
   }

 private:
   void compact() {
      if (dead_ == 0) return;
      std::erase_if(entries_, [](const std::unique_ptr<Entry>& e) { return !e->alive; });
      dead_ = 0;
   }
   std::vector<std::unique_ptr<Entry>> entries_;
   uint64_t lastId_ = 0;
   size_t dead_ = 0;
   int depth_ = 0;
   std::shared_ptr<SubscriberList> self_;
};

}  // namespace detail

// Ends a subscription when destroyed or reset; outliving the notifier is harmless.
class Subscription {
 public:
   Subscription() = default;
   Subscription(std::weak_ptr<detail::SubscriberList> list, uint64_t id)
       : list_(std::move(list)), id_(id) {}
   Subscription(Subscription&& o) noexcept : list_(std::move(o.list_)), id_(o.id_) { o.id_ = 0; }
   Subscription& operator=(Subscription&& o) noexcept {
      if (this != &o) {
         reset();
         list_ = std::move(o.list_);
         id_ = o.id_;
         o.id_ = 0;
      }
      return *this;
   }
   Subscription(const Subscription&) = delete;
   Subscription& operator=(const Subscription&) = delete;
   ~Subscription() { reset(); }

   void reset() {
      if (id_) {
         if (auto l = list_.lock()) l->remove(id_);
         id_ = 0;
      }
   }
   bool active() const { return id_ != 0 && !list_.expired(); }

 private:
   std::weak_ptr<detail::SubscriberList> list_;
   uint64_t id_ = 0;
};

template <class... Args>
class Notifier {
 public:
   using Callback = std::function<void(const Args&...)>;

   Notifier() : list_(std::make_shared<detail::SubscriberList>()) {}
   // A copied record starts with no subscribers of its own.
   Notifier(const Notifier&) : Notifier() {}
   Notifier& operator=(const Notifier&) { return *this; }
   ~Notifier() {
      detail::SubscriberList* l = list_.get();
      if (l && l->notifying()) l->keepSelf(std::move(list_));
   }

   // Any callable taking (const Args&...); it is stored once, not wrapped in a Callback first.
   template <class F>
   [[nodiscard]] Subscription subscribe(F&& cb) {
      uint64_t id = list_->add([cb = std::forward<F>(cb)](const void* p) {
         std::apply(cb, *static_cast<const std::tuple<const Args&...>*>(p));
      });
      return Subscription(list_, id);
   }
   // Moves and merges are published through here once each: no reference-count traffic, and
   // nothing at all without subscribers. A subscriber may destroy the notifier's owner; the list
   // then keeps itself alive until the notification is over.
   void notify(const Args&... args) const {
      detail::SubscriberList& l = *list_;
      if (l.empty()) return;
      const std::tuple<const Args&...> tuple(args...);
      l.notify(&tuple);
   }
   size_t subscribers() const { return list_->size(); }

 private:
   std::shared_ptr<detail::SubscriberList> list_;
};

// Base of state machines that react to notifications. It owns its subscriptions (they end with
// it) and can switch its notifications off as a whole.
class Reactor {
 public:
   virtual ~Reactor() = default;

   bool hasNotificationActive() const { return notificationActive_; }
   void hasNotificationActiveIs(bool active) { notificationActive_ = active; }

 protected:
   // Subscribes a callback that runs only while this reactor's notifications are active. The
   // returned index can be passed to unwatch().
   template <class... Args, class F>
   size_t watch(Notifier<Args...>& notifier, F&& callback) {
      subscriptions_.push_back(
          notifier.subscribe([this, cb = std::forward<F>(callback)](const Args&... args) {
             if (notificationActive_) cb(args...);
          }));
      return subscriptions_.size() - 1;
   }
   void unwatch(size_t index) {
      if (index < subscriptions_.size()) subscriptions_[index].reset();
   }

 private:
   bool notificationActive_ = true;
   std::vector<Subscription> subscriptions_;
};

}  // namespace Ulo
