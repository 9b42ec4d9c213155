#include "vpath.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace tirval::server {
namespace {

using namespace std::string_literals;

TEST(Path, RelativeOnesStartInTheWorkingDirectory)
{
    EXPECT_EQ(resolve_path("/My files", "a"), "/My files/a");
    EXPECT_EQ(resolve_path("/", "a"), "/a");
    EXPECT_EQ(resolve_path("/My files", ""), "/My files");
    EXPECT_EQ(resolve_path("/My files", "/Shared"), "/Shared");
}

TEST(Path, DotsAndDoubledAndTrailingSlashesAreResolved)
{
    EXPECT_EQ(resolve_path("/a", "./b//c/"), "/a/b/c");
    EXPECT_EQ(resolve_path("/a/b", "../c/./d/.."), "/a/c");
    EXPECT_EQ(resolve_path("/a", "/"), "/");
    EXPECT_EQ(resolve_path("/a", "//"), "/");
    EXPECT_EQ(resolve_path("/a", "/x/../"), "/");
}

TEST(Path, TheParentOfTheRootIsTheRoot)
{
    EXPECT_EQ(resolve_path("/", ".."), "/");
    EXPECT_EQ(resolve_path("/a", "../../../etc"), "/etc");
}

TEST(Path, BlanksDotsInNamesAndForeignBytesStayAsTheyAre)
{
    EXPECT_EQ(resolve_path("/", " a "), "/ a ");
    EXPECT_EQ(resolve_path("/", "..."), "/...");
    EXPECT_EQ(resolve_path("/", "a..b/.c"), "/a..b/.c");
    EXPECT_EQ(resolve_path("/", "\xE4\xFF\x01"), "/\xE4\xFF\x01");
}

TEST(Path, LineEndsAndNulAreRefused)
{
    EXPECT_FALSE(resolve_path("/", "a\rb"));
    EXPECT_FALSE(resolve_path("/", "a\nb"));
    EXPECT_FALSE(resolve_path("/", "a\0b"s));
}

TEST(Path, ParentNameAndChildFitTogether)
{
    EXPECT_EQ(parent_path("/a/b"), "/a");
    EXPECT_EQ(parent_path("/a"), "/");
    EXPECT_EQ(parent_path("/"), "/");
    EXPECT_EQ(base_name("/a/b"), "b");
    EXPECT_EQ(base_name("/"), "/");
    EXPECT_EQ(child_path("/", "a"), "/a");
    EXPECT_EQ(child_path("/a", "b"), "/a/b");
}

TEST(Path, CanonicalOnesAreTold)
{
    for (const char *path : {"/", "/a", "/a/b c", "/..."}) {
        EXPECT_TRUE(is_canonical_path(path)) << path;
    }
    for (const char *path : {"", "a", "/a/", "//", "/a//b", "/.", "/a/..", "/a/./b", "/a\nb"}) {
        EXPECT_FALSE(is_canonical_path(path)) << path;
    }
}

TEST(Path, WhateverAClientWritesBecomesCanonicalOrIsRefused)
{
    std::mt19937 random(99);
    const std::string alphabet = "//..ab \r\n\0\xC3"s;
    int refused = 0;
    for (int round = 0; round < 20000; ++round) {
        std::string argument;
        for (auto n = random() % 12; n > 0; --n) {
            argument += alphabet[random() % alphabet.size()];
        }
        const auto path = resolve_path("/My files/x", argument);
        const bool forbidden = argument.find_first_of("\r\n\0"s) != std::string::npos;
        ASSERT_EQ(!path, forbidden);
        if (path) {
            ASSERT_TRUE(is_canonical_path(*path)) << *path;
            ASSERT_EQ(resolve_path("/elsewhere", *path), path);
        }
        refused += forbidden ? 1 : 0;
    }
    EXPECT_GT(refused, 0);
}

TEST(Path, WildcardsAreTold)
{
    EXPECT_TRUE(has_wildcards("*.txt"));
    EXPECT_TRUE(has_wildcards("a?"));
    EXPECT_TRUE(has_wildcards("[ab]"));
    EXPECT_FALSE(has_wildcards("a{b}~"));
}

} // namespace
} // namespace tirval::server
