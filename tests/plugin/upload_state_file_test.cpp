/* The upload-state file: its layout, its initialisation, its lock and its end. */
#include "system_seams.h"

#include "faked_user.h"

#include <fstream>
#include <gmock/gmock.h>
#include <iterator>

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr size_t length = 4248;

void write_file(const std::string &path, const std::string &content)
{
    std::ofstream(path, std::ios::binary) << content;
}

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class UploadStateFile : public ::testing::Test {
  protected:
    void SetUp() override
    {
        user = {};
        seams = {};
        tirval_i_onedrive_upload_path = folder.c_str();
    }
    void TearDown() override
    {
        seams = {};
        tirval_i_onedrive_upload_path = template_before;
    }

    void create() { tirval_i_onedrive_upload_state_create("U", &state); }
    /* Only the first page of the file's two is unmapped; the test gives the second one back. */
    void destroy()
    {
        char *const mapping = state.fd != -1 ? reinterpret_cast<char *>(state.shared) : nullptr;
        tirval_i_onedrive_upload_state_destroy(&state);
        if (mapping != nullptr) {
            EXPECT_EQ(munmap(mapping + 4096, length - 4096), 0);
        }
    }
    void make_folder() const { std::filesystem::create_directory(folder); }

    const char *const template_before = tirval_i_onedrive_upload_path;
    const error_scope scope;
    const temporary_folder temporary;
    const std::string folder = temporary / "onedrive-u";
    const std::string file = folder + "/U";
    tirval_onedrive_upload_state_t state = {};
};

TEST(UploadStateLayout, PlacesItsFieldsWhereOtherProcessesLookForThem)
{
    using record = tirval_onedrive_upload_state_shared_s;
    EXPECT_EQ(offsetof(record, id), 0U);
    EXPECT_EQ(sizeof(record::id), 128U);
    EXPECT_EQ(offsetof(record, num_parts), 128U);
    EXPECT_EQ(offsetof(record, part_size), 136U);
    EXPECT_EQ(offsetof(record, total_size), 144U);
    EXPECT_EQ(offsetof(record, name), 152U);
    EXPECT_EQ(sizeof(record::name), 4096U);
    EXPECT_EQ(offsetof(record, part_array), length);
    EXPECT_EQ(static_cast<size_t>(TIRVAL_ONEDRIVE_UPLOAD_STATE_LENGTH), length);
}

/* ---- Creating ---- */

TEST_F(UploadStateFile, MakesItsFolderAndAZeroedFile)
{
    create();
    EXPECT_TRUE(state.is);
    EXPECT_GE(state.fd, 0);
    EXPECT_EQ(mode_of(folder), 0700U);
    EXPECT_EQ(mode_of(file), 0600U);
    EXPECT_EQ(read_file(file), std::string(length, '\0'));
    EXPECT_TRUE(lock_is_free(file));
    destroy();
}

TEST_F(UploadStateFile, LiesInTheRealUsersHomeByDefault)
{
    user.home = temporary.path();
    std::filesystem::create_directory(temporary / ".tirval");
    tirval_i_onedrive_upload_path = template_before;
    create();
    destroy();
    EXPECT_EQ(size_of(temporary / ".tirval/onedrive-u/U"), static_cast<off_t>(length));
}

TEST_F(UploadStateFile, InitialisesThroughItsFirstSixteenBytesAndMapsTheWhole)
{
    create();
    EXPECT_THAT(seams.mapped, ElementsAre(16, length));
    EXPECT_THAT(seams.unmapped, ElementsAre(16));
    EXPECT_EQ(seams.truncated, 2);
    EXPECT_THAT(seams.calls, ElementsAre("try lock", "unlock"));
    destroy();
}

TEST_F(UploadStateFile, BringsAFileOfAnotherSizeToItsLengthAndKeepsWhatItHolds)
{
    for (const size_t size : {0UL, 24UL, length - 1, length + 1}) {
        make_folder();
        write_file(file, std::string(size, 'x'));
        create();
        ASSERT_GE(state.fd, 0);
        destroy();
        const size_t kept = std::min(size, length);
        EXPECT_EQ(read_file(file), std::string(kept, 'x') + std::string(length - kept, '\0'));
    }
}

TEST_F(UploadStateFile, AdoptsAFileOfItsLength)
{
    make_folder();
    write_file(file, std::string(length, 'x'));
    create();
    ASSERT_GE(state.fd, 0);
    EXPECT_EQ(state.shared->name[4095], 'x');
    EXPECT_EQ(seams.truncated, 0);
    EXPECT_THAT(seams.mapped, ElementsAre(length));
    destroy();
}

TEST_F(UploadStateFile, SharesItsRecordWithOtherProcesses)
{
    create();
    EXPECT_EQ(child_process([] {
                  tirval_onedrive_upload_state_t other = {};
                  tirval_i_onedrive_upload_state_create("U", &other);
                  if (tirval_i_onedrive_upload_state_lock(&other, true) != TIRVAL_SUCCESS) {
                      return 1;
                  }
                  strcpy(other.shared->id, "session");
                  other.shared->num_parts = -2;
                  other.shared->part_size = 10485760;
                  other.shared->total_size = UINT64_MAX;
                  strcpy(other.shared->name, "/My files/a");
                  (void)tirval_i_onedrive_upload_state_unlock(&other);
                  tirval_i_onedrive_upload_state_destroy(&other);
                  return 0;
              }).wait(),
              0);
    ASSERT_EQ(tirval_i_onedrive_upload_state_lock(&state, true), TIRVAL_SUCCESS);
    EXPECT_STREQ(state.shared->id, "session");
    EXPECT_EQ(state.shared->num_parts, -2);
    EXPECT_EQ(state.shared->part_size, 10485760U);
    EXPECT_EQ(state.shared->total_size, UINT64_MAX);
    EXPECT_STREQ(state.shared->name, "/My files/a");
    ASSERT_EQ(tirval_i_onedrive_upload_state_unlock(&state), TIRVAL_SUCCESS);
    destroy();
}

/* ---- Falling back to private memory ---- */

TEST_F(UploadStateFile, UsesPrivateMemoryWhenItsFolderCannotBeMade)
{
    const std::string below_nothing = temporary / "nothing/onedrive-u";
    tirval_i_onedrive_upload_path = below_nothing.c_str();
    create();
    EXPECT_TRUE(state.is);
    EXPECT_EQ(state.fd, -1);
    ASSERT_NE(state.shared, nullptr);
    const char *const bytes = reinterpret_cast<const char *>(state.shared);
    EXPECT_EQ(std::string(bytes, length), std::string(length, '\0'));
    destroy();
}

TEST_F(UploadStateFile, OpensItsFileTenTimesAtMost)
{
    make_folder();
    seams.open = {EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE};
    create();
    EXPECT_GE(state.fd, 0) << "the tenth attempt worked";
    destroy();
    seams.open = {EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE, EMFILE};
    create();
    EXPECT_EQ(state.fd, -1);
    EXPECT_TRUE(seams.open.used_up());
    destroy();
}

TEST_F(UploadStateFile, DoesNotUseAFileOfAnotherUser)
{
    ASSERT_EQ(geteuid(), 0U) << "this test gives a file away";
    make_folder();
    write_file(file, std::string(length, 'x'));
    ASSERT_EQ(chown(file.c_str(), 65534, 65534), 0);
    create();
    EXPECT_EQ(state.fd, -1);
    ASSERT_NE(state.shared, nullptr);
    EXPECT_EQ(state.shared->id[0], '\0');
    destroy();
}

TEST_F(UploadStateFile, UsesPrivateMemoryWhenTheFilesStatusCannotBeRead)
{
    make_folder();
    seams.fstat = {EIO};
    create();
    EXPECT_EQ(state.fd, -1);
    destroy();
}

TEST_F(UploadStateFile, AFailedMappingIsNotTestedFor)
{
    seams.mmap = {0, ENODEV};
    create();
    EXPECT_GE(state.fd, 0);
    EXPECT_EQ(static_cast<void *>(state.shared), MAP_FAILED);
    tirval_i_onedrive_upload_state_destroy(&state);
    EXPECT_EQ(state.fd, -1);
}

/* ---- Initialising together with other processes ---- */

TEST_F(UploadStateFile, IsMappedWithoutWaitingWhenItHasItsLengthWhileAnotherProcessHoldsItsLock)
{
    make_folder();
    write_file(file, std::string(length, 'x'));
    const lock_holder other(file);
    create();
    EXPECT_GE(state.fd, 0);
    EXPECT_EQ(state.shared->id[0], 'x');
    EXPECT_THAT(seams.sleeps, IsEmpty());
    EXPECT_THAT(seams.calls, ElementsAre("try lock"));
    destroy();
}

TEST_F(UploadStateFile, IsWaitedForInStepsOfASecondWhileAnotherProcessInitialisesIt)
{
    make_folder();
    const lock_holder other(file);
    seams.while_sleeping = [this] {
        if (seams.sleeps.size() == 2) {
            ASSERT_EQ(truncate(file.c_str(), length), 0);
        }
    };
    create();
    EXPECT_GE(state.fd, 0);
    EXPECT_THAT(seams.sleeps, ElementsAre(1, 1));
    EXPECT_EQ(seams.truncated, 0);
    destroy();
}

TEST_F(UploadStateFile, IsTriedAgainAtOnceWhenTheStatusOfALockedFileCannotBeRead)
{
    make_folder();
    const lock_holder other(file);
    ASSERT_EQ(truncate(file.c_str(), length), 0);
    seams.fstat = {0, EIO};
    create();
    EXPECT_GE(state.fd, 0);
    EXPECT_THAT(seams.sleeps, IsEmpty());
    EXPECT_THAT(seams.calls, ElementsAre("try lock", "try lock"));
    destroy();
}

TEST_F(UploadStateFile, AFailedFirstExtensionIsRepeated)
{
    seams.ftruncate = {ENOSPC, EIO};
    create();
    EXPECT_GE(state.fd, 0);
    EXPECT_EQ(seams.truncated, 4);
    destroy();
}

TEST_F(UploadStateFile, AnInterruptedSecondExtensionIsRepeated)
{
    seams.ftruncate = {0, EINTR, EINTR};
    create();
    EXPECT_GE(state.fd, 0);
    EXPECT_EQ(seams.truncated, 4);
    destroy();
}

TEST_F(UploadStateFile, AnInterruptedFirstExtensionLeavesTheClosedDescriptorsNumber)
{
    EXPECT_EQ(child_process([this] {
                  make_folder();
                  const int next_fd = dup(0);
                  (void)close(next_fd);
                  seams.ftruncate = {EINTR};
                  create();
                  const bool closed = fcntl(state.fd, F_GETFD) == -1 && errno == EBADF;
                  return state.is && state.fd == next_fd && closed && state.shared != nullptr &&
                                 state.shared->id[0] == '\0'
                             ? 0
                             : 1;
              }).wait(),
              0);
}

TEST_F(UploadStateFile, AFailedSecondExtensionLeavesTheMappingThatIsGone)
{
    EXPECT_EQ(child_process([this] {
                  seams.ftruncate = {0, EIO};
                  create();
                  const bool gone = msync(state.shared, 16, MS_ASYNC) == -1 && errno == ENOMEM;
                  return state.is && state.fd == -1 && state.shared != nullptr && gone ? 0 : 1;
              }).wait(),
              0);
}

TEST_F(UploadStateFile, SeveralProcessesInitialiseItTogether)
{
    std::deque<child_process> children;
    for (int i = 0; i < 6; i++) {
        children.emplace_back([this] {
            create();
            const int failure = state.fd == -1 ? 1 : 0;
            tirval_i_onedrive_upload_state_destroy(&state);
            return failure;
        });
    }
    for (child_process &child : children) {
        EXPECT_EQ(child.wait(), 0);
    }
    EXPECT_EQ(size_of(file), static_cast<off_t>(length));
}

/* ---- The lock ---- */

TEST_F(UploadStateFile, ItsLockKeepsOtherProcessesOut)
{
    create();
    ASSERT_EQ(tirval_i_onedrive_upload_state_lock(&state, false), TIRVAL_SUCCESS);
    EXPECT_FALSE(lock_is_free(file));
    ASSERT_EQ(tirval_i_onedrive_upload_state_unlock(&state), TIRVAL_SUCCESS);
    EXPECT_TRUE(lock_is_free(file));
    destroy();
}

TEST_F(UploadStateFile, ALockHeldElsewhereFailsAtOnceWhenNotWaitedFor)
{
    create();
    const lock_holder other(file);
    EXPECT_EQ(message_of(tirval_i_onedrive_upload_state_lock(&state, false)),
              "System error in fnctl: Resource temporarily unavailable");
    destroy();
}

TEST_F(UploadStateFile, AnInterruptedLockIsTriedAgain)
{
    create();
    seams.calls.clear();
    seams.fcntl = {EINTR};
    EXPECT_EQ(tirval_i_onedrive_upload_state_lock(&state, true), TIRVAL_SUCCESS);
    seams.fcntl = {EINTR};
    EXPECT_EQ(tirval_i_onedrive_upload_state_unlock(&state), TIRVAL_SUCCESS);
    EXPECT_THAT(seams.calls, ElementsAre("wait for lock", "wait for lock", "unlock", "unlock"));
    destroy();
}

TEST_F(UploadStateFile, ALockThatFailsIsASystemErrorInFnctl)
{
    create();
    seams.fcntl = {ENOLCK, EIO};
    EXPECT_EQ(message_of(tirval_i_onedrive_upload_state_lock(&state, true)),
              "System error in fnctl: No locks available");
    EXPECT_EQ(message_of(tirval_i_onedrive_upload_state_unlock(&state)),
              "System error in fnctl: Input/output error");
    destroy();
}

TEST_F(UploadStateFile, WritesTheLinesOfItsLockInTheLockFunctionsNames)
{
    const memory_channel channel(TIRVAL_ONEDRIVE_ALL);
    create();
    (void)tirval_i_onedrive_upload_state_lock(&state, true);
    (void)tirval_i_onedrive_upload_state_unlock(&state);
    destroy();
    const std::string lines = channel.text();
    for (const char *part : {"tirval_i_onedrive_upload_state_create: enter\n",
                             "tirval_i_onedrive_upload_state_create: exit\n",
                             "tirval_i_onedrive_upload_state_lock: exit: result=TIRVAL_SUCCESS\n",
                             "tirval_i_onedrive_upload_state_unlock: exit: result=TIRVAL_SUCCESS\n",
                             "tirval_i_onedrive_upload_state_destroy: exit\n"}) {
        EXPECT_THAT(lines, HasSubstr(part));
    }
}

/* ---- Destroying ---- */

TEST_F(UploadStateFile, DestroyingPrivateMemoryFreesItAndLeavesNothingShared)
{
    user.failure = EIO;
    create();
    ASSERT_EQ(state.fd, -1);
    tirval_i_onedrive_upload_state_destroy(&state);
    EXPECT_EQ(state.fd, -1);
    EXPECT_EQ(state.shared, nullptr);
}

TEST_F(UploadStateFile, DestroyingUnmapsSixteenBytesAndLeavesTheSecondPageMapped)
{
    create();
    char *const mapping = reinterpret_cast<char *>(state.shared);
    const int fd = state.fd;
    seams.unmapped.clear();
    tirval_i_onedrive_upload_state_destroy(&state);
    EXPECT_THAT(seams.unmapped, ElementsAre(16));
    EXPECT_EQ(state.fd, -1);
    EXPECT_EQ(state.shared, nullptr);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(msync(mapping, 4096, MS_ASYNC), -1) << "the first page is gone";
    EXPECT_EQ(msync(mapping + 4096, length - 4096, MS_ASYNC), 0) << "the second is not";
    EXPECT_EQ(munmap(mapping + 4096, length - 4096), 0);
}

} // namespace
