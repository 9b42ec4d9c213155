/* The plug-in's error object: its pairs, its printed text, and reading and adding pairs. */
#include "frame_support.h"

#include <cerrno>

namespace {

/* The n-th copy of a text from now on fails; 0: none. */
int failing_copy = 0;

} // namespace

extern "C" TIRVAL_API char *strdup(const char *text) noexcept
{
    static auto *const next = next_definition<char *(const char *)>("strdup");
    if (failing_copy > 0 && --failing_copy == 0) {
        errno = ENOMEM;
        return nullptr;
    }
    return next(text);
}

namespace {

struct release_object {
    void operator()(tirval_object_t *object) const noexcept { tirval_object_free(object); }
};
using object_t = std::unique_ptr<tirval_object_t, release_object>;

using pair_t = tirval_dsi_rest_key_value_t;

tirval_dsi_rest_key_array_t array_of(std::vector<pair_t> &pairs)
{
    return {.count = pairs.size(), .key_value = pairs.data()};
}

object_t error_with(std::vector<pair_t> pairs)
{
    const tirval_dsi_rest_key_array_t info = array_of(pairs);
    return object_t(tirval_onedrive_error_construct(nullptr, nullptr, &info));
}

void add(const object_t &error, std::vector<pair_t> pairs)
{
    const tirval_dsi_rest_key_array_t info = array_of(pairs);
    tirval_onedrive_error_add_info(error.get(), &info);
}

std::string printed(const object_t &error)
{
    return taken(tirval_error_print(error.get()));
}

const tirval_dsi_rest_key_array_t *pairs_of(const object_t &error)
{
    return static_cast<const tirval_dsi_rest_key_array_t *>(
        tirval_object_get_instance_data(error.get()));
}

TEST(ErrorObject, PrintsEachPairOnALineOfItsOwn)
{
    EXPECT_EQ(printed(error_with({{"OneDrive-Path", "/a"}, {"OneDrive-Error", "x"}})),
              "OneDrive-Path: \"/a\"\nOneDrive-Error: \"x\"");
}

TEST(ErrorObject, PrintsQuotesBackslashesAndLineEndsEscaped)
{
    EXPECT_EQ(printed(error_with({{"k", "a\"b\\c\rd\ne"}})), "k: \"a\\\"b\\\\c\\rd\\ne\"");
}

TEST(ErrorObject, SkipsPairsWithoutAValue)
{
    EXPECT_EQ(printed(error_with({{"a", nullptr}, {"b", "1"}, {"c", nullptr}, {"d", "2"}})),
              "b: \"1\"\nd: \"2\"");
}

TEST(ErrorObject, SkipsPairsWithoutAKey)
{
    EXPECT_EQ(printed(error_with({{nullptr, "1"}, {"b", "2"}, {nullptr, nullptr}})), "b: \"2\"");
}

TEST(ErrorObject, PrintsNothingWithoutPairs)
{
    EXPECT_EQ(printed(error_with({})), "");
    const object_t from_null(tirval_onedrive_error_construct(nullptr, nullptr, nullptr));
    ASSERT_NE(from_null, nullptr);
    EXPECT_EQ(printed(from_null), "");
    const object_t bare(tirval_object_construct(TIRVAL_ONEDRIVE_ERROR_TYPE_DEFINITION));
    EXPECT_EQ(printed(bare), "");
}

TEST(ErrorObject, PrintsNothingForALonePairWithAnEmptyKey)
{
    EXPECT_EQ(printed(error_with({{"", "1"}})), "");
}

TEST(ErrorObjectDeathTest, AnEmptyValueEndsTheProcess)
{
    const object_t error = error_with({{"OneDrive-Error", ""}});
    EXPECT_DEATH((void)printed(error), "assertion failed: strlen\\(msg\\) == len ");
}

TEST(ErrorObjectDeathTest, AnEmptyKeyBeforeAWrittenPairEndsTheProcess)
{
    const object_t error = error_with({{"", "1"}, {"b", "2"}});
    EXPECT_DEATH((void)printed(error), "assertion failed: strlen\\(msg\\) == len ");
}

TEST(ErrorObjectDeathTest, PrintingAnObjectOfAnotherTypeEndsTheProcess)
{
    const object_t other(tirval_object_construct(TIRVAL_ERROR_TYPE_BASE_DEFINITION));
    EXPECT_DEATH((void)tirval_i_onedrive_error_type.printable_func(other.get()),
                 "assertion failed: onedrive_error != NULL ");
}

TEST(ErrorObject, DerivesFromTheBaseError)
{
    const object_t error = error_with({});
    EXPECT_EQ(tirval_i_onedrive_error_type.parent, TIRVAL_ERROR_TYPE_BASE_DEFINITION);
    EXPECT_EQ(tirval_object_upcast(error.get(), TIRVAL_ERROR_TYPE_BASE_DEFINITION), error.get());
}

TEST(ErrorObject, OwnsCopiesOfItsPairs)
{
    char key[] = "key";
    char value[] = "value";
    const object_t error = error_with({{key, value}});
    key[0] = 'K';
    value[0] = 'V';
    EXPECT_EQ(printed(error), "key: \"value\"");
    EXPECT_NE(pairs_of(error)->key_value[0].key, key);
}

TEST(ErrorObject, KeepsNeitherSourceNorCause)
{
    const object_t cause(tirval_object_construct(TIRVAL_ERROR_TYPE_BASE_DEFINITION));
    const object_t error(
        tirval_onedrive_error_construct(&tirval_i_onedrive_common_module, cause.get(), nullptr));
    EXPECT_EQ(tirval_error_get_cause(error.get()), nullptr);
}

TEST(ErrorObject, InitialisingAnObjectOfAnotherTypeIsRefused)
{
    const object_t other(tirval_object_construct(TIRVAL_ERROR_TYPE_BASE_DEFINITION));
    EXPECT_EQ(tirval_onedrive_error_initialize(other.get(), nullptr, nullptr, nullptr), nullptr);
    EXPECT_EQ(tirval_object_get_instance_data(other.get()), nullptr);
    EXPECT_EQ(tirval_onedrive_error_initialize(nullptr, nullptr, nullptr, nullptr), nullptr);
}

TEST(ErrorObject, InitialisingAgainReplacesThePairs)
{
    const object_t error = error_with({{"a", "1"}});
    std::vector<pair_t> pairs = {{"b", "2"}};
    const tirval_dsi_rest_key_array_t info = array_of(pairs);
    EXPECT_EQ(tirval_onedrive_error_initialize(error.get(), nullptr, nullptr, &info), error.get());
    EXPECT_EQ(printed(error), "b: \"2\"");
}

TEST(ErrorObject, ACopyHasPairsOfItsOwn)
{
    object_t error = error_with({{"a", "1"}, {nullptr, "2"}, {"c", nullptr}});
    const object_t copy(tirval_object_copy(error.get()));
    error.reset();
    ASSERT_NE(pairs_of(copy), nullptr);
    ASSERT_EQ(pairs_of(copy)->count, 3U);
    EXPECT_STREQ(pairs_of(copy)->key_value[0].value, "1");
    EXPECT_EQ(pairs_of(copy)->key_value[1].key, nullptr);
    EXPECT_STREQ(pairs_of(copy)->key_value[1].value, "2");
    EXPECT_EQ(pairs_of(copy)->key_value[2].value, nullptr);
}

TEST(ErrorObject, ACopyOfNoPairsIsAnEmptyRecord)
{
    tirval_dsi_rest_key_array_t none = {};
    void *copy = nullptr;
    tirval_i_onedrive_error_type.copy_func(&none, &copy);
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(static_cast<tirval_dsi_rest_key_array_t *>(copy)->count, 0U);
    EXPECT_EQ(static_cast<tirval_dsi_rest_key_array_t *>(copy)->key_value, nullptr);
    tirval_i_onedrive_error_type.free_func(copy);
}

TEST(ErrorObject, CopyingNothingOrToNowhereDoesNothing)
{
    int untouched = 0;
    void *copy = &untouched;
    tirval_i_onedrive_error_type.copy_func(nullptr, &copy);
    EXPECT_EQ(copy, &untouched);
    tirval_dsi_rest_key_array_t none = {};
    tirval_i_onedrive_error_type.copy_func(&none, nullptr);
    tirval_i_onedrive_error_type.free_func(nullptr);
}

TEST(ErrorObject, InfoIsFoundThroughTheChainOfCauses)
{
    tirval_object_t *const pairs = error_with({{"OneDrive-Path", "/a"}}).release();
    tirval_object_t *const inner =
        tirval_gfs_ftp_response_error_construct(nullptr, pairs, 550, "PATH_NOT_FOUND", "inner");
    const object_t outer(
        tirval_gfs_ftp_response_error_construct(nullptr, inner, 451, "TOO_BUSY", nullptr));
    EXPECT_STREQ(tirval_onedrive_error_get_info(outer.get(), "OneDrive-Path"), "/a");
    EXPECT_EQ(tirval_onedrive_error_get_info(outer.get(), "onedrive-path"), nullptr);
    EXPECT_EQ(tirval_onedrive_error_get_info(outer.get(), "OneDrive"), nullptr);
}

TEST(ErrorObject, TheFirstPairOfAKeyIsTheOneThatIsFound)
{
    const object_t error = error_with({{nullptr, "0"}, {"a", "1"}, {"a", "2"}});
    EXPECT_STREQ(tirval_onedrive_error_get_info(error.get(), "a"), "1");
}

TEST(ErrorObject, InfoIsAbsentWithoutPairsOrObject)
{
    EXPECT_EQ(tirval_onedrive_error_get_info(nullptr, "a"), nullptr);
    EXPECT_EQ(tirval_onedrive_error_get_info(error_with({}).get(), "a"), nullptr);
    const object_t bare(tirval_object_construct(TIRVAL_ONEDRIVE_ERROR_TYPE_DEFINITION));
    EXPECT_EQ(tirval_onedrive_error_get_info(bare.get(), "a"), nullptr);
    const object_t other(
        tirval_gfs_ftp_response_error_construct(nullptr, nullptr, 550, nullptr, nullptr));
    EXPECT_EQ(tirval_onedrive_error_get_info(other.get(), "a"), nullptr);
}

TEST(ErrorObject, AddingANewKeyAppendsThePair)
{
    const object_t error = error_with({{"a", "1"}});
    add(error, {{"b", "2"}});
    EXPECT_EQ(printed(error), "a: \"1\"\nb: \"2\"");
    add(error, {{"c", "3"}});
    EXPECT_EQ(printed(error), "a: \"1\"\nb: \"2\"\nc: \"3\"");
}

TEST(ErrorObject, AddingToAnObjectWithoutPairsGivesItItsFirst)
{
    const object_t error = error_with({});
    add(error, {{"a", "1"}});
    EXPECT_EQ(printed(error), "a: \"1\"");
}

TEST(ErrorObject, AddingAPresentKeyKeepsTheOldValue)
{
    const object_t error = error_with({{"a", "old"}});
    add(error, {{"a", "new"}});
    EXPECT_EQ(printed(error), "a: \"old\"");
}

TEST(ErrorObject, AddingAPresentKeyBesideANewOneKeepsTheOldValue)
{
    const object_t error = error_with({{"a", "old"}});
    add(error, {{"a", "new"}, {"b", "2"}});
    EXPECT_EQ(printed(error), "a: \"old\"\nb: \"2\"");
}

TEST(ErrorObject, AddingSeveralNewKeysInOneCallAddsNone)
{
    const object_t error = error_with({{"a", "1"}});
    add(error, {{"b", "2"}, {"c", "3"}});
    EXPECT_EQ(pairs_of(error)->count, 1U);
    EXPECT_EQ(printed(error), "a: \"1\"");
    add(error, {{"d", "4"}, {"d", "5"}});
    EXPECT_EQ(pairs_of(error)->count, 1U);
    add(error, {{"b", "2"}});
    EXPECT_EQ(printed(error), "a: \"1\"\nb: \"2\"");
}

TEST(ErrorObject, AddingAPairWithoutAValueAddsNone)
{
    const object_t error = error_with({{"a", "1"}});
    add(error, {{"b", nullptr}});
    EXPECT_EQ(pairs_of(error)->count, 1U);
}

TEST(ErrorObject, AddingToAnotherTypeOrFromNothingDoesNothing)
{
    const object_t other(tirval_object_construct(TIRVAL_ERROR_TYPE_BASE_DEFINITION));
    add(other, {{"a", "1"}});
    EXPECT_EQ(tirval_object_get_instance_data(other.get()), nullptr);
    const object_t bare(tirval_object_construct(TIRVAL_ONEDRIVE_ERROR_TYPE_DEFINITION));
    add(bare, {{"a", "1"}});
    EXPECT_EQ(tirval_object_get_instance_data(bare.get()), nullptr);
    const object_t error = error_with({{"a", "1"}});
    add(error, {});
    tirval_onedrive_error_add_info(error.get(), nullptr);
    EXPECT_EQ(printed(error), "a: \"1\"");
}

TEST(ErrorObject, TravelsAsTheCauseOfAnFtpResponse)
{
    const error_scope scope;
    tirval_object_t *const cause = error_with({{"OneDrive-Path", "/a"}}).release();
    const tirval_result_t result = tirval_error_put(tirval_gfs_ftp_response_error_construct(
        nullptr, cause, 550, "PERMISSION_DENIED", "no %s", "way"));
    const std::string text = message_of(result);
    EXPECT_NE(text.find("no way"), std::string::npos) << text;
    EXPECT_TRUE(text.ends_with("\nOneDrive-Path: \"/a\"")) << text;
}

TEST(ErrorObject, IsNotMadeWhenMemoryRunsOut)
{
    for (int nth = 1; nth <= 4; nth++) {
        failing_copy = nth;
        EXPECT_EQ(error_with({{"a", "1"}, {"b", "2"}}), nullptr) << nth;
    }
    failing_copy = 5;
    EXPECT_EQ(printed(error_with({{"a", "1"}, {"b", "2"}})), "a: \"1\"\nb: \"2\"");
    failing_copy = 0;
}

TEST(ErrorObject, KeepsItsPairsWhenMemoryRunsOutWhileInitialisingAgain)
{
    const object_t error = error_with({{"a", "1"}});
    std::vector<pair_t> pairs = {{"b", "2"}};
    const tirval_dsi_rest_key_array_t info = array_of(pairs);
    failing_copy = 2;
    EXPECT_EQ(tirval_onedrive_error_initialize(error.get(), nullptr, nullptr, &info), nullptr);
    EXPECT_EQ(printed(error), "a: \"1\"");
}

TEST(ErrorObject, AddsNoneWhenMemoryRunsOut)
{
    const object_t error = error_with({{"a", "1"}});
    for (int nth = 1; nth <= 3; nth++) {
        failing_copy = nth; /* the present pair's value, the new key, the new value */
        add(error, {{"a", "x"}, {"b", "2"}});
        EXPECT_EQ(printed(error), "a: \"1\"") << nth;
    }
    failing_copy = 0;
    add(error, {{"a", "x"}, {"b", "2"}});
    EXPECT_EQ(printed(error), "a: \"1\"\nb: \"2\"");
}

TEST(SystemError, NamesTheCallAndTheReason)
{
    const error_scope scope;
    errno = ENOENT;
    EXPECT_EQ(message_of(tirval_i_onedrive_system_error("fnctl")),
              "System error in fnctl: No such file or directory");
    errno = ENOMEM;
    EXPECT_EQ(message_of(tirval_i_onedrive_malloc_error()),
              "System error in malloc: Cannot allocate memory");
    errno = 0;
    EXPECT_EQ(message_of(tirval_i_onedrive_malloc_error()), "System error in malloc");
}

} // namespace
