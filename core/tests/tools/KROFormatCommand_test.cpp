// `kro format`: texts of times, levels and notes, read back, JSON for python, bad input.
#include <gtest/gtest.h>

#include <string>

#include "KROTestCommand.h"

namespace {

// `kro format` with the arguments as a user types them in a shell.
KROCommandResult kroFormat(const std::string& arguments) {
    return KRORunCommand("timeout -s KILL 30 " KRO_TOOL " format " + arguments);
}

} // namespace

TEST(KROFormatCommand, ShowsAndReadsTimesLevelsAndNotes) {
    const std::pair<const char*, const char*> cases[] = {
        {"time 61.5 --style m:ss.hh", "1:01.50\n"},
        {"time 1:01.50 --style m:ss.hh --parse", "61.5\n"},
        {"time 3600 --style 5", "1:00:00;00\n"},
        {"time '01:00:00;00' --style smpte-29.97-drop --parse", "3600\n"},
        {"time 2.75 --style bars-960 --tempo 120 --meter 4 --position", "2|2|480\n"},
        {"time 0.5 --style samples --rate 44100", "22050\n"},
        {"db -6", "-6.0 dB\n"},
        {"db 3.256 --style gain --precision 2", "+3.26 dB\n"},
        {"db -- -inf", "-inf dB\n"},
        {"note 61 --style flats", "Db4\n"},
        {"note C#4 --parse", "61\n"},
    };
    for (const auto& [arguments, text] : cases) {
        const KROCommandResult result = kroFormat(std::string(arguments) + " 2>&1");
        EXPECT_EQ(result.status, 0) << arguments;
        EXPECT_EQ(result.output, text) << arguments;
    }
}

TEST(KROFormatCommand, BadInputIsAClearMessageAndExit1) {
    const std::pair<const char*, const char*> cases[] = {
        {"time nan", "kro: \"nan\" is not seconds; add --parse to read a text.\n"},
        {"time 1e300 --style m:ss.hh", "kro: 1e300 has no text in the time style m:ss.hh.\n"},
        {"time 1 --style 24", nullptr},
        {"time '1|1' --style bars-480 --parse",
         "kro: Write bars, beats and ticks as bars|beats|ticks, such as 2|1|000.\n"},
        {"time '1|1|000' --style bars-480 --tempo 0 --parse",
         "kro: Bars and beats need a tempo and a time signature.\n"},
        {"time '1 minute' --style words --parse",
         "kro: \"1 minute\" cannot be read in the style words.\n"},
        {"volume 1", "kro: unknown kind \"volume\"; the kinds are time, db and note.\n"},
        {"db loud --parse", "kro: \"loud\" is not a level in decibels such as -6.0 dB or -inf.\n"},
        {"db 1 --style shouting",
         "kro: unknown db style \"shouting\"; the styles are level, gain.\n"},
        {"note H4 --parse", "kro: \"H4\" is not a note such as C4, C#4 or Db4.\n"},
        {"note G#9 --parse", "kro: \"G#9\" lies outside the MIDI notes C-1 to G9.\n"},
    };
    for (const auto& [arguments, message] : cases) {
        const KROCommandResult result = kroFormat(std::string(arguments) + " 2>&1 >/dev/null");
        EXPECT_EQ(result.status, 1) << arguments;
        if (message) {
            EXPECT_EQ(result.output, message);
        } else {
            EXPECT_EQ(
                result.output.rfind("kro: unknown time style \"24\"; the styles are samples, ", 0),
                0u)
                << result.output;
        }
    }
}

TEST(KROFormatCommand, JSONHoldsKindStyleValueAndText) {
    const std::pair<const char*, const char*> cases[] = {
        {"time 90000 --style smpte-30", "time smpte-30 90000 25:00:00:00"},
        {"db -- -inf", "db level None -inf dB"},
    };
    for (const auto& [arguments, fields] : cases) {
        const KROCommandResult json = kroFormat(std::string("--json ") + arguments);
        ASSERT_EQ(json.status, 0) << arguments;
        const std::string read =
            KRORunCommand("echo '" + json.output +
                          "' | /usr/bin/python3 -c 'import json,sys; d=json.load(sys.stdin); "
                          "print(d[\"kind\"], d[\"style\"], d[\"value\"], d[\"text\"])'")
                .output;
        EXPECT_EQ(read, std::string(fields) + "\n") << json.output;
    }
}
