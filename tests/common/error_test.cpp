/* Errors: what they say, what programs can ask them, and who owns their causes. */
#include "support.h"

#include <cerrno>
#include <gtest/gtest.h>

namespace {

char *print_none(tirval_object_t *)
{
    return nullptr;
}

const tirval_object_type_t silent_type = {TIRVAL_ERROR_TYPE_BASE_DEFINITION, nullptr, nullptr,
                                          print_none};
const tirval_object_type_t heir_type = {&counted_type, counted_copy, counted_free, nullptr};

TEST(GenericError, TellsItsTypeTextSourceAndPlace)
{
    const object_ptr error(tirval_error_construct_error(&tirval_i_common_module, nullptr,
                                                        TIRVAL_ERROR_TYPE_SERVICE_ANSWER, "listing",
                                                        "read_page", 47, "page %d of %s", 3, "/a"));
    const char *file = nullptr;
    const char *func = nullptr;
    int line = 0;
    EXPECT_EQ(take(tirval_error_print(error.get())), "page 3 of /a");
    EXPECT_EQ(tirval_error_get_type(error.get()), TIRVAL_ERROR_TYPE_SERVICE_ANSWER);
    EXPECT_EQ(tirval_error_get_source(error.get()), &tirval_i_common_module);
    EXPECT_TRUE(tirval_error_get_location(error.get(), &file, &func, &line));
    EXPECT_STREQ(file, "listing");
    EXPECT_STREQ(func, "read_page");
    EXPECT_EQ(line, 47);
    EXPECT_EQ(tirval_error_get_errno(error.get()), 0);
}

TEST(GenericError, TypeNumbersAreFixed)
{
    EXPECT_EQ(TIRVAL_ERROR_TYPE_UNKNOWN, 0);
    EXPECT_EQ(TIRVAL_ERROR_TYPE_SERVICE_ANSWER, 6);
}

TEST(GenericError, WithoutAFormatHasAnEmptyText)
{
    const object_ptr error(
        tirval_error_construct_error(nullptr, nullptr, 1, nullptr, nullptr, 0, no_text()));
    EXPECT_EQ(take(tirval_error_print(error.get())), "");
}

TEST(GenericError, PrintsANullTextAsNull)
{
    const object_ptr error(tirval_error_construct_error(nullptr, nullptr, 1, nullptr, nullptr, 0,
                                                        "path %s!", no_text()));
    EXPECT_EQ(take(tirval_error_print(error.get())), "path (null)!");
}

TEST(GenericError, IsCopiedWithTextTypeAndPlace)
{
    object_ptr original(
        tirval_error_construct_error(nullptr, nullptr, 6, "file", "func", 9, "text %d", 1));
    const object_ptr copy(tirval_object_copy(original.get()));
    original.reset();
    const char *file = nullptr;
    const char *func = nullptr;
    int line = 0;
    EXPECT_EQ(take(tirval_error_print(copy.get())), "text 1");
    EXPECT_EQ(tirval_error_get_type(copy.get()), 6);
    EXPECT_TRUE(tirval_error_get_location(copy.get(), &file, &func, &line));
    EXPECT_STREQ(file, "file");
    EXPECT_EQ(line, 9);
}

TEST(ErrnoError, AppendsTheSystemsTextToItsMessage)
{
    const object_ptr error(make_errno_error(ENOENT, "System error in %s", "open"));
    EXPECT_EQ(take(tirval_error_print(error.get())),
              "System error in open: No such file or directory");
    EXPECT_EQ(tirval_error_get_errno(error.get()), ENOENT);
    EXPECT_EQ(tirval_error_get_type(error.get()), TIRVAL_ERROR_TYPE_UNKNOWN);
}

TEST(ErrnoError, WithoutAnErrnoIsItsMessageAlone)
{
    const object_ptr error(make_errno_error(0, "System error%s%s", "", ""));
    EXPECT_EQ(take(tirval_error_print(error.get())), "System error");
    EXPECT_EQ(tirval_error_get_errno(error.get()), 0);
}

TEST(ErrnoError, WithoutAMessageIsTheSystemsTextAlone)
{
    const object_ptr error(make_errno_error(ENOMEM, no_text()));
    EXPECT_EQ(take(tirval_error_print(error.get())), "Cannot allocate memory");
}

TEST(ErrnoError, IsCopiedWithItsErrno)
{
    object_ptr original(make_errno_error(EIO, "read"));
    const object_ptr copy(tirval_object_copy(original.get()));
    original.reset();
    EXPECT_EQ(take(tirval_error_print(copy.get())), "read: Input/output error");
    EXPECT_EQ(tirval_error_get_errno(copy.get()), EIO);
}

TEST(ErrorFacts, AreEmptyForOtherTypesAndNull)
{
    const object_ptr other(make_counted(1));
    const char *file = "x";
    const char *func = "x";
    int line = 1;
    EXPECT_EQ(tirval_error_get_type(other.get()), TIRVAL_ERROR_TYPE_UNKNOWN);
    EXPECT_EQ(tirval_error_get_type(nullptr), TIRVAL_ERROR_TYPE_UNKNOWN);
    EXPECT_EQ(tirval_error_get_errno(other.get()), 0);
    EXPECT_EQ(tirval_error_get_errno(nullptr), 0);
    EXPECT_EQ(tirval_error_get_source(nullptr), nullptr);
    EXPECT_FALSE(tirval_error_get_location(other.get(), &file, &func, &line));
    EXPECT_EQ(file, nullptr);
    EXPECT_EQ(func, nullptr);
    EXPECT_EQ(line, 0);
}

TEST(ErrorFacts, AreNotReadFromTheDataOfADerivedType)
{
    static const tirval_object_type_t derived = {TIRVAL_ERROR_TYPE_GENERIC_DEFINITION, nullptr,
                                                 counted_free, nullptr};
    const object_ptr error(tirval_object_construct(&derived));
    tirval_object_set_instance_data(error.get(), new int(1));
    ++counted_live;
    EXPECT_EQ(tirval_error_get_type(error.get()), TIRVAL_ERROR_TYPE_UNKNOWN);
    EXPECT_EQ(take(tirval_error_print(error.get())), "");
}

TEST(ErrorCause, IsOwnedByTheErrorThatNamesIt)
{
    object_ptr error(make_error("outer", make_counted(1)));
    EXPECT_EQ(tirval_object_get_type(tirval_error_get_cause(error.get())), &counted_type);
    error.reset();
    EXPECT_EQ(counted_live, 0);
}

TEST(ErrorCause, AnEarlierOneIsFreedWhenAnotherIsSet)
{
    const object_ptr error(make_counted(1, make_counted(2)));
    tirval_object_t *second = make_counted(3);
    tirval_error_set_cause(error.get(), &tirval_i_common_module, second);
    EXPECT_EQ(tirval_error_get_cause(error.get()), second);
    EXPECT_EQ(tirval_error_get_source(error.get()), &tirval_i_common_module);
    EXPECT_EQ(counted_live, 2);
    tirval_error_set_cause(error.get(), nullptr, second);
    EXPECT_EQ(tirval_error_get_cause(error.get()), second);
    EXPECT_EQ(counted_live, 2);
    tirval_error_set_cause(error.get(), nullptr, nullptr);
    EXPECT_EQ(tirval_error_get_cause(error.get()), nullptr);
    EXPECT_EQ(counted_live, 1);
}

TEST(ErrorCause, IsFreedWhenThereIsNoErrorToHoldIt)
{
    tirval_error_set_cause(nullptr, nullptr, make_counted(1));
    const object_ptr no_error(tirval_object_construct(TIRVAL_OBJECT_TYPE_BASE_DEFINITION));
    tirval_error_set_cause(no_error.get(), nullptr, make_counted(2));
    EXPECT_EQ(tirval_error_get_cause(no_error.get()), nullptr);
    EXPECT_EQ(tirval_error_get_cause(nullptr), nullptr);
    EXPECT_EQ(counted_live, 0);
}

TEST(ErrorPrint, TakesTheParentsFunctionWhenTheTypeHasNone)
{
    const object_ptr heir(tirval_object_construct(&heir_type));
    tirval_object_set_instance_data(heir.get(), new int(5));
    ++counted_live;
    EXPECT_EQ(take(tirval_error_print(heir.get())), "counted 5");
}

TEST(ErrorPrint, NamesWhatHasNoTextUnknown)
{
    const object_ptr plain(tirval_object_construct(TIRVAL_ERROR_TYPE_BASE_DEFINITION));
    EXPECT_EQ(take(tirval_error_print(plain.get())), "unknown error");
    EXPECT_EQ(take(tirval_error_print(nullptr)), "unknown error");
    EXPECT_EQ(take(tirval_error_print_chain(nullptr)), "unknown error");
}

TEST(ErrorPrint, AnErrorThatChoosesToSayNothingIsEmpty)
{
    const object_ptr silent(tirval_object_construct(&silent_type));
    EXPECT_EQ(take(tirval_error_print(silent.get())), "");
    EXPECT_EQ(take(tirval_error_print_chain(silent.get())), "");
}

TEST(ErrorPrintChain, PutsCausesOnLinesOfTheirOwn)
{
    const object_ptr error(make_error("first", make_error("second\n", make_error("third"))));
    EXPECT_EQ(take(tirval_error_print_chain(error.get())), "first\nsecond\nthird");
}

TEST(ErrorPrintChain, HasNoEmptyLineForAnErrorWithoutText)
{
    const object_ptr error(
        make_error("first", make_error("", tirval_object_construct(&silent_type))));
    tirval_error_set_cause(tirval_error_get_cause(tirval_error_get_cause(error.get())), nullptr,
                           make_error("last"));
    EXPECT_EQ(take(tirval_error_print_chain(error.get())), "first\nlast");
}

TEST(ErrorPrintChain, KeepsTheLineFeedAtTheEndOfTheLastText)
{
    const object_ptr error(make_error("only\n"));
    EXPECT_EQ(take(tirval_error_print_chain(error.get())), "only\n");
}

} // namespace
