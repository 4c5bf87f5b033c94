// Limits the descriptors that a server opens to half of the process's limit, leaving the rest
// to the host. Event-loop thread, or while no loop runs.
#pragma once

#include <sys/resource.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <optional>
#include <utility>

#include "base/noncopyable.h"

namespace kavo::impl {

class DescriptorBudget : NonCopyable {
 public:
  // A reservation of some descriptors, released on destruction.
  class Share {
   public:
    Share(Share&& other) noexcept : m_Budget(other.m_Budget), m_Count(std::exchange(other.m_Count, 0)) {}
    Share& operator=(Share&&) = delete;
    ~Share() { m_Budget.m_Used -= m_Count; }

   private:
    friend class DescriptorBudget;
    Share(DescriptorBudget& budget, std::size_t count) : m_Budget(budget), m_Count(count) { budget.m_Used += count; }

    DescriptorBudget& m_Budget;
    std::size_t m_Count;
  };

  // The event loop's own descriptors count too.
  DescriptorBudget() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    m_Limit = std::max<std::size_t>(limit.rlim_cur / 2, 2 * m_Used);
  }

  std::size_t limit() const { return m_Limit; }
  // The function closes something dispensable, or returns false if there is nothing.
  void onShortage(std::function<bool()> makeRoom) { m_MakeRoom = std::move(makeRoom); }
  std::optional<Share> take(std::size_t count) {
    while (m_Used + count > m_Limit) {
      if (!m_MakeRoom || !m_MakeRoom()) {
        return std::nullopt;
      }
    }
    return Share(*this, count);
  }

 private:
  std::size_t m_Limit = 0;
  std::size_t m_Used = 4;  // the scheduler's and the listening sockets
  std::function<bool()> m_MakeRoom;
};

}  // namespace kavo::impl
