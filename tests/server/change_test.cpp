/*
 * Making, deleting and renaming over a session's control connection, and what the session does when
 * the storage's word cannot be trusted.
 */
#include "fake_store.h"
#include "session_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace tirval::tests {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

class Change : public SessionTest {
  protected:
    Change()
    {
        harness.storage.add_file("/My files/a.txt", "hello");
        harness.storage.add_folder("/My files/docs");
        harness.storage.add_file("/My files/docs/b.bin", "b");
        harness.storage.add_folder("/My files/empty");
    }

    ftp_client_t &logged_in() { return binary(); }

    std::vector<std::string> commands() { return harness.storage.commands(); }
    void plan(const std::string &path, const fake_change_plan_t &next)
    {
        harness.storage.change_plans[path].push_back(next);
    }
};

/* The service says no without a body, and the storage takes that for success. */
fake_change_plan_t refused_silently(int status)
{
    fake_change_plan_t plan;
    plan.status = status;
    plan.applies = false;
    return plan;
}

fake_change_plan_t failing(int code, const char *tag, const char *message)
{
    fake_change_plan_t plan;
    plan.error = {code, tag, message};
    plan.status = 0;
    plan.applies = false;
    return plan;
}

fake_change_plan_t conflict()
{
    fake_change_plan_t plan = failing(0, "", "code: nameAlreadyExists");
    plan.status = 409;
    return plan;
}

const std::vector<std::string> fixed_places = {"/",
                                               "/My files",
                                               "/Shared",
                                               "/Shared libraries",
                                               "/Shared libraries/Team",
                                               "/folder",
                                               "/My files/docs/..",
                                               "/Shared libraries/Team/Documents"};

/* ---- MKD ----------------------------------------------------------------------------------- */

TEST_F(Change, MkdMakesAFolderAndAnswersWithItsQuotedPath)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("MKD say \"hi\"").last(), "257 \"/My files/say \"\"hi\"\"\" created.");
    EXPECT_EQ(client.code_of("XMKD docs/../docs/sub/"), 257);
    EXPECT_EQ(client.code_of("CWD docs/sub"), 250);
    EXPECT_THAT(commands(), ElementsAre("MKD /My files/say \"hi\"", "MKD /My files/docs/sub"));
    EXPECT_EQ(shared().starts, 1);
    EXPECT_EQ(shared().paths_not_canonical, 0);
}

TEST_F(Change, MkdOfWhatExistsIsRefusedWithoutAskingForIt)
{
    ftp_client_t &client = logged_in();
    const ftp_reply_t folder = client.ask("MKD docs");
    EXPECT_EQ(folder.last(), "550 File exists: /My files/docs");
    EXPECT_EQ(folder.lines.front(), "550-GridFTP-Reason: PATH_EXISTS");
    EXPECT_EQ(client.code_of("MKD a.txt"), 550);
    EXPECT_THAT(commands(), IsEmpty());
}

TEST_F(Change, NothingIsMadeDirectlyInTheRoot)
{
    ftp_client_t &client = logged_in();
    for (const char *path : {"/new", "/My filesX", "/Shared2", "/", "/My files"}) {
        EXPECT_EQ(client.code_of("MKD " + std::string(path)), 550) << path;
    }
    EXPECT_THAT(commands(), IsEmpty());
    EXPECT_EQ(shared().stats, 0);
}

TEST_F(Change, MkdRefusesNamesThatAreNoTextOrHoldControlCharacters)
{
    ftp_client_t &client = logged_in();
    for (const char *name :
         {"caf\xE9", "a\xC0\xAF", "\xED\xA0\x80", "a\tb", "a\x7F", "docs/\x01"}) {
        EXPECT_EQ(client.code_of("MKD " + std::string(name)), 553) << name;
    }
    EXPECT_EQ(client.code_of("MKD caf\xC3\xA9"), 257);
    EXPECT_THAT(commands(), ElementsAre("MKD /My files/caf\xC3\xA9"));
}

TEST_F(Change, MkdTellsTheStoragesOwnFailure)
{
    ftp_client_t &client = logged_in();
    const ftp_reply_t reply = client.ask("MKD nowhere/new");
    EXPECT_EQ(reply.last(), "553 Not a directory: /My files/nowhere/new");
    EXPECT_EQ(reply.lines.front(), "553-GridFTP-Reason: NOT_A_DIRECTORY");
}

TEST_F(Change, MkdStopsWhenThePathCannotBeLookedUp)
{
    harness.storage.stat_errors["/My files/new"] = {451, "TOO_BUSY", "slow down"};
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("MKD new"), 451);
    EXPECT_THAT(commands(), IsEmpty());
}

TEST_F(Change, AFolderThatOnlyTheServiceKnewExists)
{
    harness.storage.add_folder("/My files/late").hidden = true;
    fake_change_plan_t taken = conflict();
    taken.reveals = true;
    plan("/My files/late", taken);
    ftp_client_t &client = logged_in();
    const ftp_reply_t reply = client.ask("MKD late");
    EXPECT_EQ(reply.last(), "550 File exists: /My files/late");
    EXPECT_EQ(reply.lines.front(), "550-GridFTP-Reason: PATH_EXISTS");
    EXPECT_EQ(shared().starts, 2);
    EXPECT_EQ(client.code_of("CWD late"), 250);
}

TEST_F(Change, AConflictWithoutTheFolderKeepsTheStoragesWords)
{
    plan("/My files/new", conflict());
    ftp_client_t &client = logged_in();
    const ftp_reply_t reply = client.ask("MKD new");
    EXPECT_EQ(reply.code, 550);
    EXPECT_THAT(reply.text(), HasSubstr("code: nameAlreadyExists"));
    EXPECT_EQ(reply.text().find("PATH_EXISTS"), std::string::npos);
}

TEST_F(Change, AFailedMkdOpensTheStorageAnewBeforeTheNextOperation)
{
    plan("/My files/new", failing(451, "TOO_BUSY", "busy"));
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("MKD new"), 451);
    EXPECT_EQ(shared().starts, 1);
    EXPECT_EQ(client.code_of("MKD new"), 257);
    EXPECT_EQ(shared().starts, 2);
}

TEST_F(Change, MkdOffersNothingBeforeLogIn)
{
    session = harness.start();
    (void)session->client.read_reply();
    for (const char *command : {"MKD x", "RMD x", "DELE x", "RNFR x", "RNTO x", "SITE RDEL x"}) {
        EXPECT_EQ(session->client.code_of(command), 530) << command;
    }
}

/* ---- RMD, DELE, SITE RDEL ------------------------------------------------------------------ */

TEST_F(Change, ADeleteThatTheServiceConfirmedNeedsNoSecondLook)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("DELE a.txt").last(), "250 Deleted /My files/a.txt");
    EXPECT_EQ(client.code_of("SIZE a.txt"), 550);
    EXPECT_THAT(commands(), ElementsAre("DELE /My files/a.txt"));
    EXPECT_EQ(shared().lists, 0);
    EXPECT_EQ(shared().starts, 1);
}

TEST_F(Change, DeletingAFolderOpensTheStorageAnewBeforeTheNextOperation)
{
    for (const char *command : {"RMD docs", "XRMD docs", "SITE RDEL docs", "DELE docs"}) {
        session.reset();
        const int before = shared().starts;
        ftp_client_t &client = logged_in();
        EXPECT_EQ(client.code_of(command), 250) << command;
        EXPECT_EQ(shared().starts, before + 1) << command;
        EXPECT_EQ(client.code_of("MKD docs"), 257) << command;
        EXPECT_EQ(shared().starts, before + 2) << command;
    }
}

TEST_F(Change, EachDeleteIsOneRequestWhateverTheItemIs)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("RMD docs"), 250);
    EXPECT_EQ(client.code_of("RMD a.txt"), 250);
    EXPECT_EQ(client.code_of("DELE empty"), 250);
    EXPECT_THAT(commands(),
                ElementsAre("RMD /My files/docs", "RMD /My files/a.txt", "DELE /My files/empty"));
}

TEST_F(Change, ADeleteThatOnlyLooksDoneIs450AndTheItemStaysVisible)
{
    for (const int status : {412, 423}) {
        plan("/My files/a.txt", refused_silently(status));
    }
    ftp_client_t &client = logged_in();
    for (int n = 0; n < 2; ++n) {
        EXPECT_EQ(client.ask("DELE a.txt").last(),
                  "450 The storage service has not deleted it: /My files/a.txt");
        EXPECT_EQ(client.ask("SIZE a.txt").last(), "213 5");
    }
    EXPECT_EQ(shared().starts, 3);
    EXPECT_EQ(client.code_of("DELE a.txt"), 250);
}

TEST_F(Change, ADeleteOfAFolderThatOnlyLooksDoneIs450)
{
    plan("/My files/docs", refused_silently(423));
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("SITE RDEL docs"), 450);
    EXPECT_EQ(client.code_of("CWD docs"), 250);
}

TEST_F(Change, ADeleteWithoutAnAnswerIsDoneWhenTheItemIsGone)
{
    fake_change_plan_t plan_without_answer;
    plan_without_answer.status = 0;
    plan("/My files/a.txt", plan_without_answer);
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("DELE a.txt"), 250);
    EXPECT_EQ(shared().lists, 1);
    EXPECT_EQ(shared().starts, 2);
}

TEST_F(Change, ADeleteThatCannotBeCheckedIsNotCalledDone)
{
    plan("/My files/docs/b.bin", refused_silently(423));
    harness.storage.nodes["/My files/docs"].list = fake_list_t::fail_at_once;
    ftp_client_t &client = logged_in();
    EXPECT_THAT(client.ask("DELE docs/b.bin").last(),
                StartsWith("450 The storage service did not"));
}

TEST_F(Change, AFailedDeleteKeepsItsWordsAndASecondTrySucceeds)
{
    plan("/My files/a.txt", failing(451, "TOO_BUSY", "GridFTP-Error: busy"));
    ftp_client_t &client = logged_in();
    const ftp_reply_t reply = client.ask("DELE a.txt");
    EXPECT_EQ(reply.code, 451);
    EXPECT_EQ(reply.lines.front(), "451-GridFTP-Reason: TOO_BUSY");
    EXPECT_EQ(client.code_of("SIZE a.txt"), 213);
    EXPECT_EQ(client.code_of("DELE a.txt"), 250);
}

/* The storage session cannot be opened anew then, and the storage has forgotten the item. */
TEST_F(Change, AFailedDeleteHidesNothingWhileAStoreWaitsToBeContinued)
{
    plan("/My files/a.txt", failing(451, "TOO_BUSY", "busy"));
    ftp_client_t &client = logged_in();
    const std::string begun(static_cast<std::size_t>(fake_part_bytes) + 1000, 'x');
    EXPECT_EQ(client.code_of("ALLO " + std::to_string(2 * fake_part_bytes)), 200);
    auto data = client.connect_data(client.extended_passive());
    EXPECT_EQ(client.code_of("STOR big"), 150);
    send_to_peer(data.get(), begun);
    data.reset();
    EXPECT_GE(client.read_reply().code, 400);
    EXPECT_EQ(client.code_of("DELE a.txt"), 451);
    EXPECT_EQ(client.code_of("SIZE a.txt"), 213);
    EXPECT_EQ(shared().starts, 1);
    EXPECT_EQ(client.code_of("DELE a.txt"), 250);
}

TEST_F(Change, FixedPlacesAreNeverDeleted)
{
    ftp_client_t &client = logged_in();
    for (const std::string &path : fixed_places) {
        for (const char *command : {"RMD ", "DELE ", "SITE RDEL "}) {
            EXPECT_EQ(client.code_of(command + path), 550) << command << path;
        }
    }
    EXPECT_THAT(commands(), IsEmpty());
    EXPECT_EQ(shared().stats, 0);
}

TEST_F(Change, DeletingWhatIsSharedIsTheStoragesToDecide)
{
    harness.storage.add_folder("/Shared");
    harness.storage.add_folder("/Shared/plans");
    plan("/Shared/plans", failing(550, "PERMISSION_DENIED", "not yours"));
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("RMD /Shared/plans").last(), "550 Permission denied: /Shared/plans");
    EXPECT_THAT(commands(), ElementsAre("RMD /Shared/plans"));
}

TEST_F(Change, WhatDoesNotExistIsNotDeleted)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.ask("DELE nothing").last(),
              "550 No such file or directory: /My files/nothing");
    EXPECT_THAT(commands(), IsEmpty());
}

/* ---- storage.delete_checks ----------------------------------------------------------------- */

class CarefulChange : public Change {
  protected:
    CarefulChange() { harness.config.storage.delete_checks = true; }
};

TEST_F(CarefulChange, DeleIsForFiles)
{
    ftp_client_t &client = logged_in();
    const ftp_reply_t reply = client.ask("DELE empty");
    EXPECT_EQ(reply.last(), "550 Is a directory: /My files/empty");
    EXPECT_THAT(reply.text(), HasSubstr("SITE RDEL"));
    EXPECT_EQ(client.code_of("DELE a.txt"), 250);
    EXPECT_THAT(commands(), ElementsAre("DELE /My files/a.txt"));
}

TEST_F(CarefulChange, RmdIsForEmptyFolders)
{
    ftp_client_t &client = logged_in();
    const ftp_reply_t reply = client.ask("RMD docs");
    EXPECT_EQ(reply.last(), "550 Directory not empty: /My files/docs");
    EXPECT_THAT(reply.text(), HasSubstr("SITE RDEL"));
    EXPECT_EQ(client.ask("RMD a.txt").last(), "550 Not a directory: /My files/a.txt");
    EXPECT_EQ(client.code_of("RMD empty"), 250);
    EXPECT_THAT(commands(), ElementsAre("RMD /My files/empty"));
}

TEST_F(CarefulChange, AFolderThatCannotBeListedIsNotTakenForEmpty)
{
    harness.storage.nodes["/My files/empty"].list = fake_list_t::fail_at_once;
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("RMD empty"), 550);
    EXPECT_THAT(commands(), IsEmpty());
}

TEST_F(CarefulChange, SiteRdelDeletesATree)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("SITE RDEL docs"), 250);
    EXPECT_EQ(client.code_of("SIZE docs/b.bin"), 550);
    EXPECT_THAT(commands(), ElementsAre("RDEL /My files/docs"));
}

/* ---- RNFR, RNTO ---------------------------------------------------------------------------- */

TEST_F(Change, RenamesAFileInItsFolder)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("RNFR docs/b.bin"), 350);
    EXPECT_EQ(client.ask("RNTO docs/new name").last(), "250 Renamed to /My files/docs/new name");
    EXPECT_EQ(client.code_of("SIZE docs/new name"), 213);
    EXPECT_EQ(client.code_of("SIZE docs/b.bin"), 550);
    EXPECT_THAT(commands(), ElementsAre("RNTO /My files/docs/b.bin -> /My files/docs/new name"));
    EXPECT_EQ(shared().starts, 1);
}

TEST_F(Change, RntoNeedsRnfrRightBefore)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("RNTO b.txt"), 503);
    for (const char *between : {"PWD", "STAT /My files", "BOGUS", "SIZE a.txt", "ABOR"}) {
        EXPECT_EQ(client.code_of("RNFR a.txt"), 350);
        (void)client.ask(between);
        EXPECT_EQ(client.code_of("RNTO b.txt"), 503) << between;
    }
    EXPECT_EQ(client.code_of("RNFR a.txt"), 350);
    EXPECT_EQ(client.code_of("NOOP"), 200);
    EXPECT_EQ(client.code_of("STAT"), 211);
    EXPECT_EQ(client.code_of("RNTO b.txt"), 250);
    EXPECT_EQ(client.code_of("RNTO c.txt"), 503);
}

TEST_F(Change, ARefusedRntoUsesTheRnfrUp)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("RNFR a.txt"), 350);
    EXPECT_EQ(client.code_of("RNTO docs"), 553);
    EXPECT_EQ(client.code_of("RNTO b.txt"), 503);
}

TEST_F(Change, RnfrOfWhatDoesNotExistIsRefused)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("RNFR nothing"), 550);
    EXPECT_EQ(client.code_of("RNTO b.txt"), 503);
}

TEST_F(Change, FixedPlacesAreNeverRenamed)
{
    for (const bool pass : {false, true}) {
        session.reset();
        harness.config.storage.pass_renames_across_folders = pass;
        ftp_client_t &client = logged_in();
        for (const std::string &path : fixed_places) {
            EXPECT_EQ(client.code_of("RNFR " + path), 550) << path;
        }
        EXPECT_EQ(client.code_of("RNTO /My files/x"), 503);
    }
    EXPECT_EQ(shared().stats, 0);
}

TEST_F(Change, ARenameIntoAnotherFolderIsRefusedInClearWords)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("RNFR a.txt"), 350);
    EXPECT_EQ(client.ask("RNTO docs/a.txt").last(),
              "553 A rename keeps its folder, items cannot be moved: /My files/docs/a.txt");
    EXPECT_THAT(commands(), IsEmpty());
}

TEST_F(Change, ARenameIntoAnotherFolderIsPassedOnWhereConfigured)
{
    harness.config.storage.pass_renames_across_folders = true;
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("RNFR a.txt"), 350);
    EXPECT_EQ(client.code_of("RNTO docs/a.txt"), 250);
    EXPECT_THAT(commands(), ElementsAre("RNTO /My files/a.txt -> /My files/docs/a.txt"));
    /* Where the storage remembers it is not where the service has it. */
    EXPECT_EQ(client.code_of("PWD"), 257);
    EXPECT_EQ(shared().starts, 1);
    EXPECT_EQ(client.code_of("SIZE docs/b.bin"), 213);
    EXPECT_EQ(shared().starts, 2);
}

TEST_F(Change, ARenameOntoItselfHasNothingToDo)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("RNFR a.txt"), 350);
    EXPECT_EQ(client.code_of("RNTO ./docs/../a.txt"), 250);
    EXPECT_THAT(commands(), IsEmpty());
}

TEST_F(Change, ARenameThatOnlyChangesLettersCaseReachesTheStorage)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("RNFR a.txt"), 350);
    EXPECT_EQ(client.code_of("RNTO A.TXT"), 250);
    EXPECT_THAT(commands(), ElementsAre("RNTO /My files/a.txt -> /My files/A.TXT"));
    EXPECT_EQ(client.code_of("SIZE A.TXT"), 213);
}

TEST_F(Change, ARenameOverwritesNothing)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("RNFR a.txt"), 350);
    EXPECT_EQ(client.ask("RNTO docs").last(), "553 File exists: /My files/docs");
    EXPECT_EQ(client.code_of("SIZE a.txt"), 213);
}

TEST_F(Change, ANameThatOnlyTheServiceKnewIsTaken)
{
    harness.storage.add_file("/My files/late", "x").hidden = true;
    fake_change_plan_t taken = conflict();
    taken.reveals = true;
    plan("/My files/late", taken);
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("RNFR a.txt"), 350);
    const ftp_reply_t reply = client.ask("RNTO late");
    EXPECT_EQ(reply.last(), "553 File exists: /My files/late");
    EXPECT_EQ(reply.lines.front(), "553-GridFTP-Reason: PATH_EXISTS");
}

TEST_F(Change, ARenameGivesNoNameThatCannotBeMade)
{
    ftp_client_t &client = logged_in();
    const auto rename_to = [&](const std::string &name) {
        EXPECT_EQ(client.code_of("RNFR a.txt"), 350);
        return client.code_of("RNTO " + name);
    };
    EXPECT_EQ(rename_to("/a.txt"), 550);
    EXPECT_EQ(rename_to("/My filesX"), 550);
    EXPECT_EQ(rename_to("caf\xE9"), 553);
    EXPECT_EQ(rename_to("a\tb"), 553);
    EXPECT_THAT(commands(), IsEmpty());
}

TEST_F(Change, RenamingAFolderOpensTheStorageAnewBeforeTheNextOperation)
{
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("RNFR docs"), 350);
    EXPECT_EQ(client.code_of("RNTO papers"), 250);
    EXPECT_EQ(shared().starts, 1);
    EXPECT_EQ(client.code_of("SIZE papers/b.bin"), 213);
    EXPECT_EQ(shared().starts, 2);
}

TEST_F(Change, AFailedRenameOpensTheStorageAnewBeforeTheNextOperation)
{
    plan("/My files/b.txt", failing(451, "TOO_BUSY", "busy"));
    ftp_client_t &client = logged_in();
    EXPECT_EQ(client.code_of("RNFR a.txt"), 350);
    EXPECT_EQ(client.ask("RNTO b.txt").last(),
              "451 The storage service is busy, try again later: /My files/b.txt");
    EXPECT_EQ(shared().starts, 1);
    EXPECT_EQ(client.code_of("RNFR a.txt"), 350);
    EXPECT_EQ(shared().starts, 2);
    EXPECT_EQ(client.code_of("RNTO b.txt"), 250);
}

/* ---- Other sessions, and commands that take long ------------------------------------------- */

TEST_F(Change, OtherSessionsOfTheUserLookAgain)
{
    ftp_client_t &changing = logged_in();
    auto watching = harness.start_logged_in(2);
    ftp_client_t &watcher = watching->client;
    EXPECT_EQ(watcher.code_of("TYPE I"), 200);
    const auto opens_for = [&](const char *question) {
        const int before = shared().starts;
        (void)watcher.ask(question);
        return shared().starts - before;
    };
    EXPECT_EQ(opens_for("SIZE a.txt"), 0);
    EXPECT_EQ(changing.code_of("MKD new"), 257);
    EXPECT_EQ(opens_for("SIZE a.txt"), 0);
    EXPECT_EQ(opens_for("CWD new"), 2); /* its own copy of the tree has no such folder */
    EXPECT_EQ(changing.code_of("RNFR a.txt"), 350);
    EXPECT_EQ(changing.code_of("RNTO b.txt"), 250);
    EXPECT_EQ(opens_for("SIZE a.txt"), 1);
    EXPECT_EQ(changing.code_of("RNFR b.txt"), 350);
    EXPECT_EQ(changing.code_of("RNTO a.txt"), 250);
    EXPECT_EQ(opens_for("SIZE a.txt"), 1);
    EXPECT_EQ(changing.code_of("DELE a.txt"), 250);
    EXPECT_EQ(opens_for("SIZE a.txt"), 1);
}

TEST_F(Change, AborIsAnsweredInTheMiddleOfACommand)
{
    fake_change_plan_t hanging;
    hanging.until_cancelled = true;
    hanging.applies = false;
    hanging.status = 0;
    hanging.error = {0, "", "cancelled"};
    plan("/My files/docs", hanging);
    ftp_client_t &client = logged_in();
    client.send_line("SITE RDEL docs");
    while (commands().empty()) {
        usleep(1000);
    }
    EXPECT_EQ(client.code_of("ABOR"), 426);
    EXPECT_EQ(client.read_reply().code, 226);
    EXPECT_EQ(client.code_of("CWD docs"), 250);
    EXPECT_EQ(shared().starts, 2);
}

} // namespace
} // namespace tirval::tests
