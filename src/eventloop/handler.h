// A function that the event loop calls on behalf of its owner. Event-loop thread.
#pragma once

#include <functional>
#include <utility>

#include "base/noncopyable.h"

namespace kavo::impl {

// The function may delete the handler while it runs: until it returns, the function object
// is kept on the stack.
template <class... Arguments>
class Handler : NonCopyable {
 public:
  using Function = std::function<void(Arguments...)>;

  explicit Handler(Function function) : m_Function(std::move(function)) {}
  ~Handler() {
    if (m_Running != nullptr) {
      m_Running->handler = nullptr;
    }
  }

  void operator()(Arguments... arguments) {
    Running running(*this);
    running.function(arguments...);
  }

 private:
  struct Running : NonCopyable {
    explicit Running(Handler& owner) : handler(&owner), function(std::move(owner.m_Function)) {
      owner.m_Running = this;
    }
    ~Running() {
      if (handler != nullptr) {
        handler->m_Function = std::move(function);
        handler->m_Running = nullptr;
      }
    }

    Handler* handler;  // null once it is deleted
    Function function;
  };

  Function m_Function;
  Running* m_Running = nullptr;
};

}  // namespace kavo::impl
