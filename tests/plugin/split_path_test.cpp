// How client paths fall into virtual folder, site or shared item, library and the path below.
#include "test_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

struct pieces {
    std::optional<std::string> base, lib, drive, path;
    bool operator==(const pieces &) const = default;
};

std::ostream &operator<<(std::ostream &out, const pieces &value)
{
    for (const auto *piece : {&value.base, &value.lib, &value.drive, &value.path}) {
        out << (*piece ? "\"" + **piece + "\"" : "absent") << " ";
    }
    return out;
}

std::optional<std::string> text(const char *value)
{
    return value == nullptr ? std::nullopt : std::optional<std::string>(value);
}

pieces split(const char *path)
{
    const char *base = nullptr;
    char *lib = nullptr;
    char *drive = nullptr;
    char *below = nullptr;
    EXPECT_EQ(tirval_onedrive_split_path(path, &base, &lib, &drive, &below), TIRVAL_SUCCESS);
    const tirval_i_onedrive_text_t owners[] = {tirval_i_onedrive_text_t(lib),
                                               tirval_i_onedrive_text_t(drive),
                                               tirval_i_onedrive_text_t(below)};
    return {text(base), text(lib), text(drive), text(below)};
}

const auto absent = std::nullopt;

TEST(SplitPath, TheRootHasNoPieces)
{
    EXPECT_EQ(split("/"), (pieces{}));
}

TEST(SplitPath, APathOutsideOfTheVirtualFoldersHasNoPieces)
{
    EXPECT_EQ(split("/Other"), (pieces{}));
    EXPECT_EQ(split("/my files"), (pieces{}));
    EXPECT_EQ(split("/Share"), (pieces{}));
}

TEST(SplitPath, MyFilesAloneIsOnlyABase)
{
    EXPECT_EQ(split("/My files"), (pieces{"My files", absent, absent, absent}));
}

TEST(SplitPath, ThePathUnderMyFilesKeepsItsLeadingSlash)
{
    EXPECT_EQ(split("/My files/a/b"), (pieces{"My files", absent, absent, "/a/b"}));
}

TEST(SplitPath, ATrailingSlashUnderMyFilesIsAPath)
{
    EXPECT_EQ(split("/My files/"), (pieces{"My files", absent, absent, "/"}));
}

TEST(SplitPath, SharedAloneIsOnlyABase)
{
    EXPECT_EQ(split("/Shared"), (pieces{"Shared", absent, absent, absent}));
}

TEST(SplitPath, ASharedItemKeepsItsLeadingSlash)
{
    EXPECT_EQ(split("/Shared/Doc"), (pieces{"Shared", "/Doc", absent, absent}));
}

TEST(SplitPath, ThePathBelowASharedItemHasNoLeadingSlash)
{
    EXPECT_EQ(split("/Shared/Doc/x/y"), (pieces{"Shared", "/Doc", absent, "x/y"}));
}

TEST(SplitPath, SharedLibrariesIsNotTakenForShared)
{
    EXPECT_EQ(split("/Shared libraries"), (pieces{"Shared libraries", absent, absent, absent}));
}

TEST(SplitPath, ASiteIsALibWithoutADrive)
{
    EXPECT_EQ(split("/Shared libraries/Site"),
              (pieces{"Shared libraries", "/Site", absent, absent}));
}

TEST(SplitPath, ALibraryIsTheDriveWithoutALeadingSlash)
{
    EXPECT_EQ(split("/Shared libraries/Site/Lib"),
              (pieces{"Shared libraries", "/Site", "Lib", absent}));
}

TEST(SplitPath, ThePathBelowALibraryHasNoLeadingSlash)
{
    EXPECT_EQ(split("/Shared libraries/Site/Lib/a/b"),
              (pieces{"Shared libraries", "/Site", "Lib", "a/b"}));
}

TEST(SplitPath, ASlashBehindALibraryLeavesNoPath)
{
    EXPECT_EQ(split("/Shared libraries/Site/Lib/"),
              (pieces{"Shared libraries", "/Site", "Lib", absent}));
}

TEST(SplitPath, ASlashBehindASiteLeavesAnEmptyDriveAndReadsNoFurther)
{
    EXPECT_EQ(split("/Shared libraries/Site/"), (pieces{"Shared libraries", "/Site", "", absent}));
}

TEST(SplitPath, FolderNamesAreRecognisedAsPlainPrefixes)
{
    EXPECT_EQ(split("/My filesX"), (pieces{"My files", absent, absent, "X"}));
    EXPECT_EQ(split("/Sharedfoo"), (pieces{"Shared", "foo", absent, absent}));
    EXPECT_EQ(split("/Shared librariesX/y"), (pieces{"Shared libraries", "X", "y", absent}));
}

TEST(SplitPath, EveryOutPointerMayBeNull)
{
    EXPECT_EQ(tirval_onedrive_split_path("/Shared libraries/Site/Lib/a", nullptr, nullptr, nullptr,
                                         nullptr),
              TIRVAL_SUCCESS);
    const char *base = nullptr;
    EXPECT_EQ(tirval_onedrive_split_path("/My files/a", &base, nullptr, nullptr, nullptr),
              TIRVAL_SUCCESS);
    EXPECT_STREQ(base, "My files");
}

TEST(SplitPath, ItsLinesGoToTheDebugChannel)
{
    debug_trace trace;
    split("/My files");
    EXPECT_THAT(trace.text(), testing::HasSubstr("tirval_onedrive_split_path: enter\n"));
    EXPECT_THAT(trace.text(),
                testing::HasSubstr("tirval_onedrive_split_path: exit: result=TIRVAL_SUCCESS\n"));
}

} // namespace
