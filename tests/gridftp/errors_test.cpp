/*
 * Errors that carry an FTP reply, and system errors.
 */
#include "tirval_gridftp_server.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace {

struct object_free {
    void operator()(tirval_object_t *object) const { tirval_object_free(object); }
};
using object = std::unique_ptr<tirval_object_t, object_free>;

std::string printed(char *text)
{
    std::string copy = text != nullptr ? text : "(null)";
    free(text);
    return copy;
}

object reply(tirval_object_t *cause, int code, const char *tag, const char *format,
             const char *value = nullptr)
{
    return object(tirval_gfs_ftp_response_error_construct(&tirval_i_gridftp_server_module, cause,
                                                          code, tag, format, value));
}

TEST(FtpResponseError, TellsCodeTagAndMessage)
{
    object error = reply(nullptr, 550, "PATH_NOT_FOUND", "GridFTP-Path: \"%s\"", "/a");
    int code = 0;
    const char *tag = nullptr;
    const char *message = nullptr;
    ASSERT_TRUE(tirval_gfs_ftp_response_error_get(error.get(), &code, &tag, &message));
    EXPECT_EQ(code, 550);
    EXPECT_STREQ(tag, "PATH_NOT_FOUND");
    EXPECT_STREQ(message, "GridFTP-Path: \"/a\"");
    EXPECT_EQ(printed(tirval_error_print(error.get())), "550 PATH_NOT_FOUND: GridFTP-Path: \"/a\"");
}

TEST(FtpResponseError, LeavesOutThePartsThatAreNull)
{
    EXPECT_EQ(printed(tirval_error_print(reply(nullptr, 451, "TOO_BUSY", nullptr).get())),
              "451 TOO_BUSY");
    EXPECT_EQ(printed(tirval_error_print(reply(nullptr, 451, nullptr, "wait").get())), "451: wait");
    object bare = reply(nullptr, 451, nullptr, nullptr);
    EXPECT_EQ(printed(tirval_error_print(bare.get())), "451");
    const char *tag = "set";
    const char *message = "set";
    ASSERT_TRUE(tirval_gfs_ftp_response_error_get(bare.get(), nullptr, &tag, &message));
    EXPECT_EQ(tag, nullptr);
    EXPECT_EQ(message, nullptr);
}

TEST(FtpResponseError, PrintsANullValueInsteadOfFailing)
{
    object error = reply(nullptr, 553, "NOT_A_DIRECTORY", "GridFTP-Path: %s", nullptr);
    const char *message = nullptr;
    tirval_gfs_ftp_response_error_get(error.get(), nullptr, nullptr, &message);
    EXPECT_STREQ(message, "GridFTP-Path: (null)");
}

TEST(FtpResponseError, CopiesItsTag)
{
    char tag[] = "PATH_EXISTS";
    object error = reply(nullptr, 553, tag, nullptr);
    memset(tag, 'x', sizeof tag - 1);
    const char *kept = nullptr;
    tirval_gfs_ftp_response_error_get(error.get(), nullptr, &kept, nullptr);
    EXPECT_STREQ(kept, "PATH_EXISTS");
}

TEST(FtpResponseError, OwnsItsCauseAndPrintsItInTheChain)
{
    object error = reply(reply(nullptr, 425, nullptr, "inner").release(), 451, "OUTER", nullptr);
    ASSERT_NE(tirval_error_get_cause(error.get()), nullptr);
    EXPECT_EQ(printed(tirval_error_print_chain(error.get())), "451 OUTER\n425: inner");
}

TEST(FtpResponseError, IsReadOnlyFromTheObjectItselfNotFromItsCause)
{
    object outer(tirval_error_construct_error(nullptr,
                                              reply(nullptr, 550, "GONE", nullptr).release(),
                                              TIRVAL_ERROR_TYPE_SYSTEM, nullptr, nullptr, 0, "x"));
    int code = 1;
    const char *tag = "set";
    const char *message = "set";
    EXPECT_FALSE(tirval_gfs_ftp_response_error_get(outer.get(), &code, &tag, &message));
    EXPECT_EQ(code, 0);
    EXPECT_EQ(tag, nullptr);
    EXPECT_EQ(message, nullptr);
    EXPECT_FALSE(tirval_gfs_ftp_response_error_get(nullptr, nullptr, nullptr, nullptr));
}

TEST(FtpResponseError, ACopyIsIndependentOfTheOriginal)
{
    object error = reply(reply(nullptr, 425, nullptr, "inner").release(), 451, "TAG", "text");
    object copy(tirval_object_copy(error.get()));
    error.reset();
    EXPECT_EQ(printed(tirval_error_print_chain(copy.get())), "451 TAG: text\n425: inner");
    object bare(tirval_object_copy(reply(nullptr, 226, nullptr, nullptr).get()));
    EXPECT_EQ(printed(tirval_error_print(bare.get())), "226");
}

TEST(FtpResponseError, IsAnErrorOfItsOwnType)
{
    object error = reply(nullptr, 451, nullptr, nullptr);
    EXPECT_EQ(tirval_object_get_type(error.get()), TIRVAL_GFS_ERROR_TYPE_FTP_RESPONSE_DEFINITION);
    EXPECT_EQ(tirval_object_upcast(error.get(), TIRVAL_ERROR_TYPE_BASE_DEFINITION), error.get());
    EXPECT_EQ(tirval_object_upcast(error.get(), TIRVAL_ERROR_TYPE_GENERIC_DEFINITION), nullptr);
    EXPECT_EQ(tirval_error_get_type(error.get()), TIRVAL_ERROR_TYPE_UNKNOWN);
}

TEST(SystemError, AddsTheTextOfErrnoUnlessItIsZero)
{
    object error(tirval_i_gfs_error_system(nullptr, ENOENT, "System error%s%s", " in ", "open"));
    EXPECT_EQ(printed(tirval_error_print(error.get())),
              std::string("System error in open: ") + strerror(ENOENT));
    EXPECT_EQ(tirval_error_get_errno(error.get()), ENOENT);
    object quiet(tirval_i_gfs_error_system(nullptr, 0, "System error%s%s", " in ", "malloc"));
    EXPECT_EQ(printed(tirval_error_print(quiet.get())), "System error in malloc");
}

} // namespace
