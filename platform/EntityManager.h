// The state-database entity manager handle, as far as this library needs one.
//
// Synopsis
//   auto em = Ulo::entityManagerFactory("stateDb");   a named handle; em->name()
//
// Agents hand their mounted state database to the state machines that derive from the library's
// bases; the bases only keep the handle for their subclasses, so a name is all this stand-in
// carries. A real platform replaces it with its own entity manager.
//
// Single event-loop thread: nothing here is locked.
#pragma once

#include <memory>
#include <string>
#include <utility>

namespace Ulo {

class EntityManager {
 public:
   explicit EntityManager(std::string name) : name_(std::move(name)) {}
   const std::string& name() const { return name_; }

 private:
   std::string name_;
};

inline std::shared_ptr<EntityManager> entityManagerFactory(const std::string& name) {
   return std::make_shared<EntityManager>(name);
}

}  // namespace Ulo
