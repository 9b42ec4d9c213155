// The tree of a drive.
#include "item_store.h"

#include "names.h"

#include <gtest/gtest.h>

namespace graph_sim {

namespace {

const item_times then = item_times::all(*parse_iso_time("2024-01-01T00:00:00Z"));
const timestamp now = *parse_iso_time("2024-06-01T00:00:00Z");

class ItemStore : public testing::Test {
  protected:
    static drive_facts facts(flavour kind)
    {
        drive_facts made;
        made.id = kind == flavour::personal ? "3ae1d764b70b25b3" : "b!drive";
        made.kind = kind;
        return made;
    }

    drive home{facts(flavour::business)};
    item &folder = *home.add_folder(home.root(), "Documents", then);
    item &file = *home.add_file(folder, "Größe.TXT", text_content("12345"), then);
};

} // namespace

TEST_F(ItemStore, FindsNamesWithoutCaseAndKeepsTheCaseGiven)
{
    const std::vector<std::string> path{"DOCUMENTS", "gRÖSSE.txt"};
    EXPECT_EQ(drive::resolve(home.root(), path), nullptr) << "sharp s is not folded to ss";
    const std::vector<std::string> other{"DOCUMENTS", "gRÖßE.txt"};
    EXPECT_EQ(drive::resolve(home.root(), other), &file);
    EXPECT_EQ(file.name, "Größe.TXT");
}

TEST_F(ItemStore, AnEmptyPathNamesTheItemItself)
{
    EXPECT_EQ(drive::resolve(folder, {}), &folder);
}

TEST_F(ItemStore, NothingLiesBelowAFile)
{
    const std::vector<std::string> path{"Documents", "Größe.TXT", "x"};
    EXPECT_EQ(drive::resolve(home.root(), path), nullptr);
    EXPECT_EQ(home.add_folder(file, "x", then), nullptr);
}

TEST_F(ItemStore, RefusesANameThatDiffersOnlyInCase)
{
    EXPECT_EQ(home.add_folder(folder, "GRÖßE.txt", then), nullptr);
    EXPECT_EQ(folder.children.size(), 1U);
}

TEST_F(ItemStore, RefusesAnIdThatIsTaken)
{
    EXPECT_EQ(home.add_folder(folder, "new", then, file.id), nullptr);
    EXPECT_NE(home.add_folder(folder, "new", then, "own-id"), nullptr);
    EXPECT_EQ(home.find("own-id")->name, "new");
}

TEST_F(ItemStore, SizesOfFoldersFollowTheirContent)
{
    EXPECT_EQ(folder.size, 5U);
    home.add_file(folder, "b", text_content("123"), then);
    home.replace_content(file, text_content("1"), now);
    EXPECT_EQ(folder.size, 4U);
    EXPECT_EQ(home.bytes_used(), 4U);
    home.remove(folder, now);
    EXPECT_EQ(home.bytes_used(), 0U);
}

TEST_F(ItemStore, NewContentMovesBothTagsAndKeepsTheId)
{
    const std::string id = file.id;
    const std::string etag = file.etag(home.kind());
    const std::string ctag = file.ctag(home.kind());
    home.replace_content(file, text_content("other"), now);
    EXPECT_EQ(file.id, id);
    EXPECT_NE(file.etag(home.kind()), etag);
    EXPECT_NE(file.ctag(home.kind()), ctag);
    EXPECT_EQ(file.times.modified, now);
    EXPECT_EQ(file.times.client_modified, now);
    EXPECT_EQ(file.times.created, then.created);
}

TEST_F(ItemStore, ARenameMovesTheContentTagInWorkStoresOnly)
{
    drive consumer{facts(flavour::personal)};
    item &other = *consumer.add_file(consumer.root(), "a.txt", text_content("1"), then);
    EXPECT_TRUE(home.move(file, folder, "new.txt", now));
    EXPECT_TRUE(consumer.move(other, consumer.root(), "b.txt", now));
    EXPECT_EQ(file.content_count, 2U);
    EXPECT_EQ(other.content_count, 1U);
    EXPECT_EQ(file.change_count, 2U);
    EXPECT_EQ(other.change_count, 2U);
    EXPECT_EQ(drive::child(folder, "NEW.TXT"), &file);
    EXPECT_EQ(drive::child(folder, "Größe.TXT"), nullptr);
}

TEST_F(ItemStore, ARenameMayChangeTheCaseOnly)
{
    EXPECT_TRUE(home.move(file, folder, "GRÖßE.txt", now));
    EXPECT_EQ(drive::child(folder, "größe.txt")->name, "GRÖßE.txt");
}

TEST_F(ItemStore, AMoveRefusesTakenNamesFilesAndItsOwnInside)
{
    item &inner = *home.add_folder(folder, "inner", then);
    home.add_file(home.root(), "taken", text_content(""), then);
    EXPECT_FALSE(home.move(file, home.root(), "TAKEN", now));
    EXPECT_FALSE(home.move(inner, file, "x", now));
    EXPECT_FALSE(home.move(folder, inner, "x", now));
    EXPECT_FALSE(home.move(home.root(), inner, "x", now));
    EXPECT_EQ(drive::path_of(file), "/Documents/Größe.TXT");
}

TEST_F(ItemStore, AMoveCarriesTheSizeAlong)
{
    item &target = *home.add_folder(home.root(), "target", then);
    EXPECT_TRUE(home.move(file, target, file.name, now));
    EXPECT_EQ(folder.size, 0U);
    EXPECT_EQ(target.size, 5U);
    EXPECT_EQ(drive::path_of(file), "/target/Größe.TXT");
}

TEST_F(ItemStore, RemovingAFolderForgetsEverythingBelowIt)
{
    const std::string id = file.id;
    home.remove(folder, now);
    EXPECT_EQ(home.find(id), nullptr);
    EXPECT_TRUE(home.root().children.empty());
    home.remove(home.root(), now);
    EXPECT_EQ(home.find("root"), &home.root());
}

TEST_F(ItemStore, TwoDrivesMadeAlikeAgreeOnIds)
{
    drive twin(facts(flavour::business));
    item &same = *twin.add_folder(twin.root(), "Documents", then);
    EXPECT_EQ(same.id, folder.id);
}

TEST(LegalNames, FollowTheService)
{
    for (const char *name : {"a", "100% done", "#1", "a;b", ".hidden", "報告", "a'b"}) {
        EXPECT_TRUE(is_legal_name(name)) << name;
    }
    for (const char *name : {"", ".", "..", "a/b", "a:b", "a*", "a?", "a|b", "<a", "\"", "a\\b",
                             " a", "a ", "a.", "a\n", "\xFF"}) {
        EXPECT_FALSE(is_legal_name(name)) << name;
    }
}

} // namespace graph_sim
