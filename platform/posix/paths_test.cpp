// Paths, time and surroundings: bounds, failures and what they leave in the results.
#include <cerrno>
#include <cstring>

#include "fixtures_test.h"

namespace {

using Paths = Scratch;

TEST_F(Paths, ResultsFitExactlyOrStayAsTheyWere) {
    MakeDirs("real");
    ASSERT_EQ(symlink("real", At("link").c_str()), 0);
    const std::string real = At("real");
    setenv("POSIX_TEST", real.c_str(), 1);
    for (const size_t size : {real.size(), real.size() + 1}) {
        const bool fits = size > real.size();
        for (const bool path : {true, false}) {
            std::string buffer(size + 1, '#');
            const int32_t result =
                path ? mmRealPath(At("./link/../link").c_str(), buffer.data(), int32_t(size))
                     : mmGetEnv("POSIX_TEST", buffer.data(), uint32_t(size));
            EXPECT_EQ(result, fits ? EN_OK : EN_ERROR);
            EXPECT_TRUE(fits || errno == (path ? ENAMETOOLONG : ERANGE));
            EXPECT_EQ(buffer, fits ? real + '\0' + '#' : std::string(size + 1, '#'));
        }
    }
    char text[64];
    EXPECT_STREQ(mmGetErrorFormatMessage(EACCES, text, sizeof(text)), "Permission denied");
    EXPECT_STREQ(mmGetErrorFormatMessage(EACCES, text, 5), "Perm");
    EXPECT_STREQ(mmGetErrorFormatMessage(EACCES, text, 0), "");
    EXPECT_EQ(mmIsDir(At("link").c_str()), EN_OK);
    EXPECT_EQ(mmIsDir("/dev/null"), EN_ERROR);
    EXPECT_STREQ(mmBaseName(strcpy(text, "/a/b/")), "b");  // the other basename says ""
    auto* entries = reinterpret_cast<mmDirent**>(text);
    EXPECT_EQ(mmScandir(At("missing").c_str(), &entries, nullptr, nullptr), EN_ERROR);
    EXPECT_EQ(entries, nullptr);
}

TEST(Clock, SignalsDoNotShortenASleep) {
    const Interruptions interruptions;
    const mmTimespec start = mmGetTickCount();
    EXPECT_EQ(mmSleep(1999), EN_OK);
    const mmTimespec end = mmGetTickCount();
    // The clock that sleeps may be slewed against the raw one, by half a part in a thousand.
    const double nanoseconds = double(end.tv_nsec - start.tv_nsec);
    EXPECT_GE(double(end.tv_sec - start.tv_sec) + nanoseconds / 1e9, 1.998);
}

}  // namespace
