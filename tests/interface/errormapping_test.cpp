#include <gtest/gtest.h>

#include <map>
#include <new>
#include <system_error>

#include "interface/cinterface.h"

using namespace kavo;

TEST(ErrorMapping, EveryErrorCodeHasItsResult) {
  std::map<int, int> const expected = {{0, 3}, {1, 6}, {2, 7}, {3, 1}, {4, 2}, {5, 4}, {6, 5}, {7, -1}, {-1, -1}};
  for (auto const& [errorCode, result] : expected) {
    EXPECT_EQ(resultOf([code = errorCode] { throw StreamException("message", code); }), result) << "code " << errorCode;
  }
}

TEST(ErrorMapping, NothingElseEscapes) {
  EXPECT_EQ(resultOf([] {}), 0);
  EXPECT_EQ(resultOf([] { throw std::out_of_range("lookup"); }), 5);
  EXPECT_EQ(resultOf([] { throw std::bad_alloc(); }), -1);
  EXPECT_EQ(resultOf([] { throw std::system_error(std::make_error_code(std::errc::io_error)); }), -1);
  EXPECT_EQ(resultOf([] { throw 7; }), -1);
}

TEST(OptionalRecord, IsReadOnlyInItsTwoForms) {
  unsigned value = 4711;
  EXPECT_EQ(ValidateInput<unsigned>(nullptr, 0, 8554), 8554U);
  EXPECT_EQ(ValidateInput<unsigned>(&value, 4, 8554), 4711U);
  EXPECT_THROW(ValidateInput<unsigned>(nullptr, 4, 8554), StreamException);
  EXPECT_THROW(ValidateInput<unsigned>(&value, 0, 8554), StreamException);
  EXPECT_THROW(ValidateInput<unsigned>(&value, 8, 8554), StreamException);
}
