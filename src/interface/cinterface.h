// The inner side of the boundary: the command tables, the error table and the handlers'
// common check. Any thread after loading.
#pragma once

#include <functional>
#include <map>
#include <stdexcept>
#include <utility>

#include "base/nodestroy.h"
#include "base/streamexception.h"
#include "kavo_stream.h"

namespace kavo::impl {

using CommandHandler = std::function<void(void* param, int size)>;

// The few entries are stored in the library's own data: loading it cannot run out of memory
// for them, and unloading frees them.
template <class Value>
using Table = std::map<int, Value, std::less<>, InPlaceAllocator<std::pair<int const, Value>>>;
using FunctionTable = Table<CommandHandler>;
using ErrorTable = Table<int>;

// The seven commands, and those that came later.
extern NoDestroy<FunctionTable const> const g_FunctionTable;
extern NoDestroy<FunctionTable const> const g_MoreFunctions;
// Maps StreamException's codes to the results of kv_Stream.
extern NoDestroy<ErrorTable const> const g_ErrorTable;

// Reads an optional record of one value: returns the default if there is no record, else its
// value. Throws "Invalid input parameter".
template <class T>
T ValidateInput(void* param, int size, T defaultValue) {
  bool const absent = param == nullptr && size == 0;
  bool const present = param != nullptr && size == static_cast<int>(sizeof(T));
  if (!absent && !present) {
    throw StreamException("Invalid input parameter", ErrorInvalidParameter);
  }
  return present ? *static_cast<T*>(param) : defaultValue;
}

// Calls the function and translates exceptions into result codes; noteFailure gets the
// message.
template <class Function, class Note>
int resultOf(Function const& function, Note const& noteFailure) noexcept {
  auto const failed = [&](int result, char const* text) {
    noteFailure(text);
    return result;
  };
  try {
    function();
    return KV_OK;
  } catch (StreamException const& failure) {
    auto const row = g_ErrorTable->find(failure.m_Code);
    return failed(row == g_ErrorTable->end() ? KV_UNEXPECTED : row->second, failure.what());
  } catch (std::out_of_range const&) {
    return failed(KV_UNKNOWN, "No such session");
  } catch (std::exception const& failure) {
    return failed(KV_UNEXPECTED, failure.what());
  } catch (...) {
    return failed(KV_UNEXPECTED, "Unknown exception");
  }
}

}  // namespace kavo::impl
