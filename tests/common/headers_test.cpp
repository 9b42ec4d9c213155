/* The public headers, used from C. */
#include "tirval_common.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>

extern "C" char *print_an_error_made_in_c(int number);

TEST(Headers, AreValidCAndTheirFunctionsCanBeCalledFromC)
{
    const std::unique_ptr<char, decltype(&std::free)> text(print_an_error_made_in_c(7), &std::free);
    EXPECT_STREQ(text.get(), "number 7");
    EXPECT_EQ(tirval_error_count(), 0U);
}
