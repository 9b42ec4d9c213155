/* Objects: types, data, copies and release. */
#include "support.h"

#include <gtest/gtest.h>

namespace {

const tirval_object_type_t derived_type = {&counted_type, counted_copy, counted_free, nullptr};
const tirval_object_type_t bare_type = {TIRVAL_OBJECT_TYPE_BASE_DEFINITION, nullptr, nullptr,
                                        nullptr};

void copy_nothing(void *, void **) {}

TEST(Object, IsMadeWithoutDataAndKnowsItsType)
{
    const object_ptr object(tirval_object_construct(&bare_type));
    EXPECT_EQ(tirval_object_get_type(object.get()), &bare_type);
    EXPECT_EQ(tirval_object_get_instance_data(object.get()), nullptr);
}

TEST(Object, UpcastFindsTheOwnTypeAndEachParent)
{
    const object_ptr object(tirval_object_construct(&derived_type));
    EXPECT_EQ(tirval_object_upcast(object.get(), &derived_type), object.get());
    EXPECT_EQ(tirval_object_upcast(object.get(), &counted_type), object.get());
    EXPECT_EQ(tirval_object_upcast(object.get(), TIRVAL_ERROR_TYPE_BASE_DEFINITION), object.get());
    EXPECT_EQ(tirval_object_upcast(object.get(), TIRVAL_OBJECT_TYPE_BASE_DEFINITION), object.get());
}

TEST(Object, UpcastRefusesDerivedAndForeignTypes)
{
    const object_ptr object(tirval_object_construct(&counted_type));
    EXPECT_EQ(tirval_object_upcast(object.get(), &derived_type), nullptr);
    EXPECT_EQ(tirval_object_upcast(object.get(), &bare_type), nullptr);
    EXPECT_EQ(tirval_object_upcast(object.get(), TIRVAL_ERROR_TYPE_GENERIC_DEFINITION), nullptr);
}

TEST(Object, FreeReleasesTheDataOfTheWholeChain)
{
    tirval_object_t *chain = make_counted(1, make_counted(2, make_counted(3)));
    ASSERT_EQ(counted_live, 3);
    tirval_object_free(chain);
    EXPECT_EQ(counted_live, 0);
}

TEST(Object, CopyIsDeepAndKeepsOrderAndSource)
{
    object_ptr original(make_counted(1, make_counted(2)));
    tirval_error_set_cause(original.get(), &tirval_i_common_module, make_counted(3));
    const object_ptr copy(tirval_object_copy(original.get()));
    original.reset();
    EXPECT_EQ(take(tirval_error_print_chain(copy.get())), "counted 1\ncounted 3");
    EXPECT_EQ(tirval_error_get_source(copy.get()), &tirval_i_common_module);
    EXPECT_EQ(counted_live, 2);
}

TEST(Object, CopyOfATypeWithoutCopyFunctionHasNoData)
{
    int data = 0;
    const object_ptr original(tirval_object_construct(&bare_type));
    tirval_object_set_instance_data(original.get(), &data);
    const object_ptr copy(tirval_object_copy(original.get()));
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(tirval_object_get_type(copy.get()), &bare_type);
    EXPECT_EQ(tirval_object_get_instance_data(copy.get()), nullptr);
    EXPECT_EQ(tirval_object_get_instance_data(original.get()), &data);
}

TEST(Object, CopyIsNullWhenTheDataOfACauseCannotBeCopied)
{
    static const tirval_object_type_t failing = {TIRVAL_ERROR_TYPE_BASE_DEFINITION, copy_nothing,
                                                 counted_free, nullptr};
    tirval_object_t *cause = tirval_object_construct(&failing);
    tirval_object_set_instance_data(cause, new int(1));
    ++counted_live;
    const object_ptr original(make_counted(2, cause));
    EXPECT_EQ(tirval_object_copy(original.get()), nullptr);
    EXPECT_EQ(counted_live, 2);
}

TEST(Object, VeryLongChainsAreCopiedPrintedAndFreedWithoutRecursion)
{
    object_ptr chain(make_error("x"));
    for (int i = 1; i < 200'000; ++i) {
        chain.reset(make_error("x", chain.release()));
    }
    const object_ptr copy(tirval_object_copy(chain.get()));
    EXPECT_EQ(take(tirval_error_print_chain(copy.get())).size(), 399'999U);
}

TEST(Object, NullIsTolerated)
{
    tirval_object_free(nullptr);
    tirval_object_set_instance_data(nullptr, nullptr);
    EXPECT_EQ(tirval_object_construct(nullptr), nullptr);
    EXPECT_EQ(tirval_object_copy(nullptr), nullptr);
    EXPECT_EQ(tirval_object_upcast(nullptr, &bare_type), nullptr);
    EXPECT_EQ(tirval_object_get_type(nullptr), nullptr);
    EXPECT_EQ(tirval_object_get_instance_data(nullptr), nullptr);
}

TEST(Object, SettingDataLeavesEarlierDataToTheCaller)
{
    int first = 1;
    const object_ptr object(tirval_object_construct(&counted_type));
    tirval_object_set_instance_data(object.get(), &first);
    tirval_object_set_instance_data(object.get(), nullptr);
    EXPECT_EQ(tirval_object_get_instance_data(object.get()), nullptr);
    EXPECT_EQ(counted_live, 0);
}

} // namespace
