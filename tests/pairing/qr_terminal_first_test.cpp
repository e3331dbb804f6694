// Terminal QR before any symbol was encoded: this program draws nothing else first.
#include <string>

#include <gtest/gtest.h>

#include "pairing/pairing.h"

TEST(QrTerminalFirst, FailedFirstEncodingDrawsTheBareRing)
{
    const std::string light = "\033[37;47m__\033[m";
    testing::internal::CaptureStdout();
    EXPECT_EQ(qr_print_terminal(""), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), ",0\n" + light + light + "\n" + light + light + "\n\n");
}
