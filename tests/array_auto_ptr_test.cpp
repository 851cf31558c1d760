#include <TarnSocketIO/array_auto_ptr.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>

namespace {

using TarnSocketIO::array_auto_ptr;

int living = 0;

struct Counted {
    Counted() { ++living; }
    ~Counted() { --living; }
    Counted(const Counted&) = delete;
    Counted& operator=(const Counted&) = delete;
};

static_assert(!std::is_copy_constructible_v<array_auto_ptr<char>>, "the block would have two owners");
static_assert(!std::is_copy_assignable_v<array_auto_ptr<char>>, "the block would have two owners");
static_assert(!std::is_convertible_v<char*, array_auto_ptr<char>>, "a call would take the block away unseen");

TEST(ArrayAutoPtr, GivesTheBlockThatItOwns) {
    char* const block = new char[65536];
    const array_auto_ptr<char> owner(block);
    EXPECT_EQ(block, owner.get());
    EXPECT_EQ(block, owner.get());
    block[65535] = 'x';
    EXPECT_EQ('x', owner.get()[65535]);
}

TEST(ArrayAutoPtr, EndsEveryElementWhenItEnds) {
    ASSERT_EQ(0, living);
    {
        const array_auto_ptr<Counted> owner(new Counted[7]);
        EXPECT_EQ(7, living);
    }
    EXPECT_EQ(0, living);
}

TEST(ArrayAutoPtr, EndsItsBlockWhenAnExceptionPasses) {
    try {
        const array_auto_ptr<Counted> owner(new Counted[3]);
        throw 1;
    } catch (int) {
        EXPECT_EQ(0, living);
    }
}

TEST(ArrayAutoPtr, MayOwnNothing) {
    const array_auto_ptr<Counted> owner(nullptr);
    EXPECT_EQ(nullptr, owner.get());
}

}  // namespace
