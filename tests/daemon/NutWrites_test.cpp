// What a Modbus write becomes at upsd, what upsd's answer becomes for the
// client, and the credentials file: text and tables, no server.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <limits>

#include "sources/nut/NutCredentials.h"
#include "sources/nut/NutNames.h"
#include "sources/nut/NutWrites.h"

namespace tarsel::daemon::nut {
namespace {

TEST(NutWritesTest, IntegersAndBooleansBecomeDecimalText) {
    EXPECT_EQ(nutText(kq::CValue(30)), "30");
    EXPECT_EQ(nutText(kq::CValue(-12)), "-12");
    EXPECT_EQ(nutText(kq::CValue(70000u)), "70000");
    EXPECT_EQ(nutText(kq::CValue(5000000000LL)), "5000000000");
    EXPECT_EQ(nutText(kq::CValue(true)), "1");
    EXPECT_EQ(nutText(kq::CValue(false)), "0");
}

TEST(NutWritesTest, DecimalsBecomeTheShortestTextThatReadsBackTheSame) {
    EXPECT_EQ(nutText(kq::CValue(230.5f)), "230.5");
    EXPECT_EQ(nutText(kq::CValue(0.1f)), "0.1");  // not 0.100000001
    EXPECT_EQ(nutText(kq::CValue(0.1)), "0.1");
    EXPECT_EQ(nutText(kq::CValue(20.0f)), "20");
    EXPECT_EQ(nutText(kq::CValue(-2.5)), "-2.5");
    EXPECT_EQ(nutText(kq::CValue(1.0 / 3.0)), "0.3333333333333333");
    EXPECT_EQ(nutText(kq::CValue(1e-7)), "1e-07");
}

TEST(NutWritesTest, ValuesWithoutATextUpsdTakesHaveNone) {
    EXPECT_FALSE(nutText(kq::CValue()));
    EXPECT_FALSE(nutText(kq::CValue(std::numeric_limits<float>::quiet_NaN())));
    EXPECT_FALSE(nutText(kq::CValue(std::numeric_limits<double>::infinity())));
    EXPECT_FALSE(nutText(kq::CValue(kq::CValue::Bytes{1, 2})));
}

TEST(NutWritesTest, TextsGoAsTheyAreButNoControlCharacterThatCouldEndTheLine) {
    EXPECT_EQ(nutText(kq::CValue(std::string("Rack 4, row \"B\""))), "Rack 4, row \"B\"");
    EXPECT_FALSE(nutText(kq::CValue(std::string("x\nINSTCMD ups load.off"))));
    EXPECT_FALSE(nutText(kq::CValue(std::string("tab\there"))));
}

TEST(NutWritesTest, SetVarQuotesItsValueWithNutsEscapes) {
    Command command;
    command.ups = "rack1";
    command.name = "device.location";
    command.value = R"(Row "B" \ 4)";
    EXPECT_EQ(command.line(), R"(SET VAR rack1 device.location "Row \"B\" \\ 4")");
}

TEST(NutWritesTest, InstantCommandsCarryNoValue) {
    Command command;
    command.kind = Command::Kind::InstantCommand;
    command.ups = "rack1";
    command.name = "outlet.2.load.off";
    EXPECT_EQ(command.line(), "INSTCMD rack1 outlet.2.load.off");
}

TEST(NutWritesTest, CommandChannelsNameTheirCommand) {
    EXPECT_EQ(commandChannelName("beeper.disable"), "instcmd.beeper.disable");
    EXPECT_EQ(commandOfChannel("instcmd.test.battery.start"), "test.battery.start");
    EXPECT_FALSE(commandOfChannel("instcmd."));
    EXPECT_FALSE(commandOfChannel("battery.charge"));
}

TEST(NutWritesTest, OnlyPlainNamesAreSentToUpsd) {
    EXPECT_TRUE(isNutName("outlet.1.delay-shutdown_x"));
    EXPECT_FALSE(isNutName("battery charge"));
    EXPECT_FALSE(isNutName("x\nINSTCMD"));
    EXPECT_FALSE(isNutName(""));
}

TEST(NutWritesTest, UpsdErrorsMapToTheExceptionsOfTheTable) {
    for (char const* error : {"ACCESS-DENIED", "USERNAME-REQUIRED", "PASSWORD-REQUIRED",
                              "PASSWORD-INCORRECT", "INVALID-USERNAME", "INVALID-PASSWORD"}) {
        EXPECT_EQ(exceptionForError(error), 0x01) << error;
    }
    for (char const* error :
         {"VAR-NOT-SUPPORTED", "CMD-NOT-SUPPORTED", "READONLY", "UNKNOWN-COMMAND"}) {
        EXPECT_EQ(exceptionForError(error), 0x02) << error;
    }
    for (char const* error : {"INVALID-VALUE", "TOO-LONG", "INVALID-ARGUMENT"}) {
        EXPECT_EQ(exceptionForError(error), 0x03) << error;
    }
    for (char const* error : {"DATA-STALE", "DRIVER-NOT-CONNECTED", "UNKNOWN-UPS"}) {
        EXPECT_EQ(exceptionForError(error), 0x0B) << error;
    }
    for (char const* error : {"SET-FAILED", "INSTCMD-FAILED", "SOMETHING-NEW"}) {
        EXPECT_EQ(exceptionForError(error), 0x04) << error;
    }
}

Command setVar() {
    Command command;
    command.ups = "ups";
    command.name = "battery.charge.low";
    command.value = "30";
    return command;
}

TEST(NutWritesTest, OutcomesSayWhatUpsdSaidAndGiveTheTablesCode) {
    CommandResult result;
    result.status = CommandResult::Status::Done;
    result.tracked = true;
    Outcome outcome = outcomeOf(setVar(), result);
    EXPECT_EQ(outcome.exception, 0);
    EXPECT_EQ(outcome.text, "done (SET VAR battery.charge.low \"30\": upsd tracked it to SUCCESS)");
    result.tracked = false;
    EXPECT_EQ(outcomeOf(setVar(), result).text,
              "done (SET VAR battery.charge.low \"30\": upsd answered OK, untracked)");
    result = {CommandResult::Status::Refused, "ACCESS-DENIED", false};
    outcome = outcomeOf(setVar(), result);
    EXPECT_EQ(outcome.exception, 0x01);
    EXPECT_EQ(outcome.text,
              "refused by upsd (SET VAR battery.charge.low \"30\": ERR ACCESS-DENIED: the user or "
              "password of --nut-credentials is wrong, or upsd.users does not let that user do it "
              "(\"actions = SET\", the command in \"instcmds\"))");
}

TEST(NutWritesTest, ARefusalForTheUserSaysWhatToFixAndOthersSayUpsdsWordAlone) {
    // A wrong password and a user without the right look alike at upsd:
    // the operator is told where to look for either.
    for (char const* error : {"ACCESS-DENIED", "PASSWORD-INCORRECT", "INVALID-USERNAME"}) {
        CommandResult const refused{CommandResult::Status::Refused, error, false};
        EXPECT_NE(outcomeOf(setVar(), refused)
                      .text.find(std::string("ERR ") + error +
                                 ": the user or password of --nut-credentials"),
                  std::string::npos)
            << error;
    }
    CommandResult const readOnly{CommandResult::Status::Refused, "READONLY", false};
    EXPECT_EQ(outcomeOf(setVar(), readOnly).text,
              "refused by upsd (SET VAR battery.charge.low \"30\": ERR READONLY)");
}

TEST(NutWritesTest, ATrackedFailureIsServerDeviceFailureAndNoAnswerIsGatewayTargetFailed) {
    CommandResult failed{CommandResult::Status::Failed, "UNKNOWN", true};
    EXPECT_EQ(outcomeOf(setVar(), failed).exception, 0x04);
    CommandResult silent{CommandResult::Status::NoAnswer, "upsd still tracks it as PENDING", true};
    Outcome const outcome = outcomeOf(setVar(), silent);
    EXPECT_EQ(outcome.exception, 0x0B);
    EXPECT_NE(outcome.text.find("PENDING"), std::string::npos);
}

TEST(NutCredentialsTest, UsernameAndPasswordAreReadWithCommentsAndSpacesAround) {
    Credentials const credentials =
        parseCredentials("# upsd user\n\n  username = modbus \npassword=a long secret \n");
    EXPECT_EQ(credentials.username, "modbus");
    EXPECT_EQ(credentials.password, "a long secret");
}

TEST(NutCredentialsTest, AMissingDoubledOrUnknownSettingIsAnErrorThatNeverShowsAValue) {
    EXPECT_THROW(parseCredentials("username = u\n"), std::invalid_argument);
    EXPECT_THROW(parseCredentials("password = p\n"), std::invalid_argument);
    EXPECT_THROW(parseCredentials("username = u\nusername = v\npassword = p\n"),
                 std::invalid_argument);
    EXPECT_THROW(parseCredentials("username = u\npassword =\n"), std::invalid_argument);
    try {
        parseCredentials("username = u\npasword = hunter2\n");
        FAIL() << "an unknown setting was taken";
    } catch (std::invalid_argument const& error) {
        EXPECT_EQ(std::string(error.what()), "line 2: unknown setting \"pasword\"");
    }
}

TEST(NutCredentialsTest, ACredentialsFileOthersMayReadIsRefused) {
    char pattern[] = "/tmp/tarsel-credentials-XXXXXX";
    int const fd = ::mkstemp(pattern);
    ASSERT_GE(fd, 0);
    ::close(fd);
    std::ofstream(pattern) << "username = u\npassword = hunter2\n";
    ::chmod(pattern, 0644);
    try {
        readCredentials(pattern);
        ADD_FAILURE() << "a file others may read was taken";
    } catch (std::runtime_error const& error) {
        EXPECT_NE(std::string(error.what()).find("mode 0644"), std::string::npos);
        EXPECT_EQ(std::string(error.what()).find("hunter2"), std::string::npos);
    }
    ::chmod(pattern, 0600);
    EXPECT_EQ(readCredentials(pattern).password, "hunter2");
    ::unlink(pattern);
}

}  // namespace
}  // namespace tarsel::daemon::nut
