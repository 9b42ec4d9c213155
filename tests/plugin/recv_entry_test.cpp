// The entry for stores: what it refuses, and which way a file goes.
#include "store_fixture.h"

#include <climits>

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

class RecvEntry : public StoreFixture {
  protected:
    bool announce(tirval_off_t size, const std::string &to = path) { return host.recv(to, size); }
    void expect_too_large(const std::string &size, const std::string &limit)
    {
        expect_refused_before_the_begin(451, "QUOTA_EXCEEDED");
        EXPECT_EQ(host.answer.message, "");
        EXPECT_THAT(host.answer.text, HasSubstr("OneDrive-Path: \"/My files/a.bin\"\n"
                                                "OneDrive-Upload-Size: \"" +
                                                size +
                                                "\"\n"
                                                "OneDrive-Max-Upload-Size: \"" +
                                                limit +
                                                "\"\n"
                                                "OneDrive-Error: \"Upload size is too large.\""));
        EXPECT_THAT(service.requests(), IsEmpty());
    }
};

TEST_F(RecvEntry, ATokenThatCannotBeRenewedEndsTheStore)
{
    session.handle()->access_token_exp = 0;
    EXPECT_FALSE(store("data"));
    EXPECT_THAT(host.answer.text, HasSubstr("Error loading user credential"));
    EXPECT_EQ(host.begins, 0);
    EXPECT_EQ(host.answers, 1);
    EXPECT_THAT(service.requests(), IsEmpty());
}

TEST_F(RecvEntry, AnItemWithoutAParentIsStoredAsNothing)
{
    debug_trace trace;
    host.upload = "data";
    EXPECT_FALSE(host.recv("/")) << "the host knows that nothing was taken";
    EXPECT_EQ(trace.count("tirval_i_onedrive_recv: exit: result=TIRVAL_SUCCESS\n"), 1U);
    EXPECT_EQ(host.answer.code, 451);
    EXPECT_EQ(host.answer.tag, "TRANSFER_INCOMPLETE");
    EXPECT_EQ(host.answers, 1);
    EXPECT_EQ(host.received, 0U);
    EXPECT_THAT(service.requests(), IsEmpty());
}

TEST_F(RecvEntry, AMissingFolderOnTheWayIsNotFound)
{
    EXPECT_FALSE(announce(4, "/My files/none/a.bin"));
    expect_refused_before_the_begin(550, "PATH_NOT_FOUND");
    EXPECT_EQ(host.answer.message, "GridFTP-Path: \"/My files/none/a.bin\"");
    EXPECT_THAT(service.requests(), IsEmpty());
}

TEST_F(RecvEntry, AFolderThatCannotBeListedEndsTheStoreWithThatError)
{
    session.cached("/My files")->listed = false;
    service.answer(http_peer_answer::complete(403));
    EXPECT_FALSE(announce(4));
    expect_refused_before_the_begin(550, "PERMISSION_DENIED");
    EXPECT_EQ(service.requests().size(), 1U);
}

TEST_F(RecvEntry, ATargetThatDoesNotExistIsTheNormalCase)
{
    session.cached("/My files")->listed = false;
    service.answer(graph::page({}));
    service.answer(stored());
    EXPECT_TRUE(store("data")) << host.answer.text;
    EXPECT_EQ(host.answers, 1);
    EXPECT_EQ(service.requests().size(), 2U);
    EXPECT_NE(session.cached(path), nullptr);
}

TEST_F(RecvEntry, ATargetThatExistsIsReplaced)
{
    session.enter("/My files", "a.bin", "id-old", TIRVAL_ONEDRIVE_FILE);
    service.answer(stored(200));
    EXPECT_TRUE(store("data")) << host.answer.text;
    EXPECT_STREQ(session.cached(path)->id, "id-stored");
}

/* ---- The limit ---- */

TEST_F(RecvEntry, AnAnnouncedSizeOverTheLimitIsRefused)
{
    EXPECT_FALSE(announce(268435456001));
    expect_too_large("268435456001", "268435456000");
}

TEST_F(RecvEntry, ANegativeSizeCountsAsTooLarge)
{
    EXPECT_FALSE(announce(-1));
    expect_too_large("-1", "268435456000");
    EXPECT_FALSE(announce(INT64_MIN));
    expect_too_large("-9223372036854775808", "268435456000");
}

TEST_F(RecvEntry, ASizeThatIsTheLimitIsAccepted)
{
    service.answer(http_peer_answer::complete(403));
    EXPECT_FALSE(announce(268435456000));
    ASSERT_EQ(service.requests().size(), 1U);
    EXPECT_EQ(service.requests().at(0).method, "POST");
}

TEST_F(RecvEntry, TheLimitIsTheSessionsOwn)
{
    session.handle()->max_upload = 10;
    EXPECT_FALSE(announce(11));
    expect_too_large("11", "10");
    service.answer(stored());
    EXPECT_TRUE(store("0123456789")) << host.answer.text;
}

TEST_F(RecvEntry, ALimitBeyondAllSizesStillRefusesNegativeOnes)
{
    session.handle()->max_upload = static_cast<uint64_t>(INT64_MAX) + 5;
    EXPECT_FALSE(announce(-1));
    expect_too_large("-1", "-9223372036854775804");
}

TEST_F(RecvEntry, TheSizeIsLookedAtBeforeTheFolder)
{
    session.enter("/My files", "f", "id-f", TIRVAL_ONEDRIVE_FILE, "drive-1", true);
    EXPECT_FALSE(announce(268435456001, "/My files/f/a.bin"));
    EXPECT_EQ(host.answer.tag, "QUOTA_EXCEEDED");
}

/* ---- The two ways ---- */

TEST_F(RecvEntry, FourMebibytesGoUpWithOneRequestAndAByteMoreThroughASession)
{
    service.answer(http_peer_answer::complete(403));
    EXPECT_FALSE(announce(static_cast<tirval_off_t>(simple_limit) + 1));
    EXPECT_EQ(graph::path(service.requests().at(0)),
              "/v1.0/me/drive/root:/a.bin:/createUploadSession");
    service.answer(http_peer_answer::complete(403));
    EXPECT_FALSE(store(std::string(simple_limit, 'x')));
    EXPECT_EQ(graph::path(service.requests().at(1)), "/v1.0/me/drive/root:/a.bin:/content");
}

TEST_F(RecvEntry, TheTunableOfThatNameTakesNoPartInTheChoice)
{
    const int32_t before = tirval_i_onedrive_chunked_minimum;
    tirval_i_onedrive_chunked_minimum = 1;
    service.answer(stored());
    EXPECT_TRUE(store("data")) << host.answer.text;
    tirval_i_onedrive_chunked_minimum = before;
    EXPECT_EQ(service.requests().at(0).method, "PUT");
}

/* ---- Places where nothing can be stored ---- */

struct refused_place {
    const char *path;
    const char *reason;
};

class RecvRefusedPlace : public RecvEntry,
                         public testing::WithParamInterface<std::tuple<refused_place, size_t>> {};

TEST_P(RecvRefusedPlace, IsRefusedBeforeAnyRequest)
{
    const auto &[place, size] = GetParam();
    EXPECT_FALSE(announce(static_cast<tirval_off_t>(size), place.path));
    expect_refused_before_the_begin(550, "PERMISSION_DENIED");
    EXPECT_THAT(host.answer.text, HasSubstr(std::string("OneDrive-Path: \"") + place.path +
                                            "\"\nOneDrive-Error: \"" + place.reason + "\""));
    EXPECT_THAT(service.requests(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Places, RecvRefusedPlace,
    testing::Combine(testing::Values(refused_place{"/a.bin", "Invalid path for a write operation."},
                                     refused_place{"/Shared",
                                                   "Can not write to the root of /Shared."}),
                     testing::Values(4, simple_limit + 1)));

TEST_F(RecvEntry, AFileInTheFolderOfSharedItemsIsRefused)
{
    session.mark_listed("/Shared");
    session.enter("/Shared", "item", "id-i", TIRVAL_ONEDRIVE_FILE);
    EXPECT_FALSE(announce(4, "/Shared/item"));
    expect_refused_before_the_begin(550, "PERMISSION_DENIED");
    EXPECT_THAT(host.answer.text, HasSubstr("Can not write to the root of /Shared."));
}

TEST_F(RecvEntry, AFileInASharedFolderGoesToItsDrive)
{
    session.mark_listed("/Shared");
    session.enter("/Shared", "item", "id-i", TIRVAL_ONEDRIVE_FOLDER, "drive-9", true);
    service.answer(stored());
    host.upload = "data";
    EXPECT_TRUE(host.recv("/Shared/item/a.bin")) << host.answer.text;
    EXPECT_EQ(service.requests().at(0).target, "/v1.0/drives/drive-9/items/id-i:/a.bin:/content");
    EXPECT_NE(session.cached("/Shared/item/a.bin"), nullptr);
}

class RecvIntoAFile : public RecvEntry, public testing::WithParamInterface<size_t> {};

TEST_P(RecvIntoAFile, IsRefusedWithTheFilesName)
{
    session.enter("/My files", "f", "id-f", TIRVAL_ONEDRIVE_FILE, "drive-1", true);
    EXPECT_FALSE(announce(static_cast<tirval_off_t>(GetParam()), "/My files/f/a.bin"));
    expect_refused_before_the_begin(553, "NOT_A_DIRECTORY");
    EXPECT_EQ(host.answer.message, "GridFTP-Path: /My files/f");
    EXPECT_THAT(service.requests(), IsEmpty());
    EXPECT_EQ(record("/My files/f/a.bin"), nullptr);
}

TEST_P(RecvIntoAFile, AnItemOfUnknownKindIsNoFolderEither)
{
    session.enter("/My files", "f", "id-f", TIRVAL_ONEDRIVE_UNKNOWN, "drive-1", true);
    EXPECT_FALSE(announce(static_cast<tirval_off_t>(GetParam()), "/My files/f/a.bin"));
    expect_refused_before_the_begin(553, "NOT_A_DIRECTORY");
}

INSTANTIATE_TEST_SUITE_P(Sizes, RecvIntoAFile, testing::Values(4, simple_limit + 1));

/* ---- Lines ---- */

TEST_F(RecvEntry, ItsLinesGoToTheDebugChannel)
{
    service.answer(stored());
    debug_trace trace;
    ASSERT_TRUE(store("data")) << host.answer.text;
    for (const char *function : {"tirval_i_onedrive_recv", "tirval_i_onedrive_recv_simple"}) {
        EXPECT_EQ(trace.count(std::string(function) + ": enter\n"), 1U) << function;
        EXPECT_EQ(trace.count(std::string(function) + ": exit: result=TIRVAL_SUCCESS\n"), 1U);
    }
    EXPECT_EQ(trace.count("API CALL!\n"), 1U);
}

TEST_F(RecvEntry, AFailuresChainIsWrittenAtTheErrorLevel)
{
    debug_trace trace(TIRVAL_ONEDRIVE_ERROR);
    EXPECT_FALSE(announce(-1));
    EXPECT_THAT(trace.text(),
                testing::ContainsRegex("tirval_i_onedrive_recv: exit: result=0x[0-9a-f]+ "
                                       "message=(.|\n)*Upload size is too large."));
}

} // namespace
