#include <TarnSocketIO/TarnSocketIO.h>
#include <gmock/gmock.h>

namespace {

TEST(Version, TextIsMadeOfTheThreeNumbers) {
    EXPECT_EQ(std::to_string(TARN_SOCKETIO_VERSION_MAJOR) + "." + std::to_string(TARN_SOCKETIO_VERSION_MINOR) + "." +
                  std::to_string(TARN_SOCKETIO_VERSION_PATCH),
              TARN_SOCKETIO_VERSION);
}

TEST(Version, IsTheOneThatTheBuildWasConfiguredWith) {
    EXPECT_STREQ(TARN_CONFIGURED_VERSION, TARN_SOCKETIO_VERSION);
}

}  // namespace
