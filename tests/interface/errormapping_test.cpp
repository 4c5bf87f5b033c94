#include <gtest/gtest.h>

#include <new>
#include <system_error>

#include "interface/cinterface.h"

using namespace kavo::impl;

namespace {

template <class Function>
int resultOf(Function const& function) {
  return kavo::impl::resultOf(function, [](char const*) {});
}

}  // namespace

TEST(ErrorMapping, NothingElseEscapes) {
  EXPECT_EQ(resultOf([] {}), 0);
  EXPECT_EQ(resultOf([] { throw std::out_of_range("lookup"); }), 5);
  EXPECT_EQ(resultOf([] { throw std::bad_alloc(); }), -1);
  EXPECT_EQ(resultOf([] { throw std::system_error(std::make_error_code(std::errc::io_error)); }), -1);
  EXPECT_EQ(resultOf([] { throw 7; }), -1);
}
