// The boundary's inner side: the command table, the error table and the
// handlers' common check. Any thread after load.
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

// Their few entries stand in the library itself: loading takes no memory that
// could be short, and unloading frees it.
template <class Value>
using Table = std::map<int, Value, std::less<>, InPlaceAllocator<std::pair<int const, Value>>>;
using FunctionTable = Table<CommandHandler>;
using ErrorTable = Table<int>;

// The seven commands, and those that came later.
extern NoDestroy<FunctionTable const> const g_FunctionTable;
extern NoDestroy<FunctionTable const> const g_MoreFunctions;
// From StreamException's code to what kv_Stream returns.
extern NoDestroy<ErrorTable const> const g_ErrorTable;

// The reader of an optional record that holds one value: the default for no
// record at all, otherwise what the record holds. Throws "Invalid input parameter".
template <class T>
T ValidateInput(void* param, int size, T defaultValue) {
  bool const absent = param == nullptr && size == 0;
  bool const present = param != nullptr && size == static_cast<int>(sizeof(T));
  if (!absent && !present) {
    throw StreamException("Invalid input parameter", ErrorInvalidParameter);
  }
  return present ? *static_cast<T*>(param) : defaultValue;
}

// Calls the function and translates what it throws into a result code; noteFailure
// gets the text.
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
