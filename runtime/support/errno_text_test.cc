// errno as text: the system's wording, and the "<what> <path>: <text>" shape
// the runtime's messages use.
#include "support/errno_text.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace {

TEST(ErrnoText, GivesTheSystemsTextOfTheNumber)
{
    EXPECT_EQ(kelp::rt::errnoText(ENOENT), "No such file or directory");
    EXPECT_FALSE(kelp::rt::errnoText(-12345).empty());
}

TEST(ErrnoText, MessageNamesWhatFailedAndThePathAndReadsErrnoAtTheCall)
{
    errno = EACCES;
    EXPECT_EQ(kelp::rt::errnoMessage("cannot open", "/etc/kelp.ini"),
              "cannot open /etc/kelp.ini: Permission denied");
}

} // namespace
