#include "state.h"

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace simulated_platform;
using testing::HasSubstr;

namespace {

using Cases = std::vector<std::pair<std::string, std::string>>;

/** What is made of a text, as one text, so that a table of them reads well. */
std::string parsed(const std::string& input) {
    std::string reason;
    const std::optional<State> state = parse_state(input, reason);
    if (!state) return reason;
    std::ostringstream text;
    text << "type " << state->connection_type << " states " << state->wifi << state->cellular
         << state->ethernet << state->bluetooth << ' ' << state->firmware.value_or("none");
    for (const Setting& setting : state->settings)
        text << ", " << setting.key << ' ' << setting.type << ' ' << setting.text << ' '
             << setting.integer;
    for (const Profile& profile : state->profiles)
        text << ", " << profile.name << ' ' << profile.type << ' ' << profile.state;
    return text.str();
}

}  // namespace

TEST(ParseState, ReadsEveryGroup) {
    for (const auto& [text, expected] :
         Cases{{"[settings]\ndb/menu/agree=int:-3\nlanguage=string:en_GB\nvolume=double:1.50\n"
                "mute=bool:true\n[network]\n# a "
                "comment\ntype=ethernet\nwifi=1\ncellular=5\nethernet=2\n"
                "bluetooth=4\nprofiles=wired;home\n[profile home]\ntype=wifi\nstate=1\n[profile "
                "wired]\n"
                "type=ethernet\nstate=3\n[profile away]\ntype=wifi\n[system]\nfirmware=T-1200.1\n",
                "type 3 states 1524 T-1200.1, db/menu/agree 41 -3 -3, language 42 en_GB 0, "
                "volume 43 1.5 0, mute 44 true 0, wired 2 3, home 1 1"},
               {"[network]\ntype=disconnected\nprofiles=\n", "type 0 states 0000 none"},
               // The last of two equal keys counts.
               {"[settings]\na=int:1\na=int:2\n[settings]\na=int:3\n",
                "type 0 states 0000 none, a 41 3 3"}})
        EXPECT_EQ(parsed(text), expected);
    // Types go by name or number, which mean others for a connection than for a profile.
    for (const auto& [type, expected] : Cases{{"wifi", "type 1 states 0000 none, p 1 0"},
                                              {"cellular", "type 2 states 0000 none, p 0 0"},
                                              {"ethernet", "type 3 states 0000 none, p 2 0"},
                                              {"bluetooth", "type 4 states 0000 none, p 3 0"},
                                              {"-9", "type -9 states 0000 none, p -9 0"}})
        EXPECT_EQ(
            parsed("[network]\nprofiles=p\ntype=" + type + "\n[profile p]\ntype=" + type + "\n"),
            expected);
}

TEST(ParseState, RefusesWhatItCannotTakeAndSaysWhy) {
    for (const auto& [text, expected] :
         Cases{{"", "no group"},
               {"[network]\ntype=wifi\nethernet=2", "not terminated"},
               {"type=wifi\n", "group"},
               {"[network]\ntype=wlan\n", "[network] type: \"wlan\""},
               {"[network]\nwifi=on\n", "[network] wifi: \"on\""},
               {"[network]\ncable=1\n", "[network] cable"},
               {"[network]\nprofiles=wired\n", "[profile wired]"},
               {"[network]\nprofiles=p;p\n[profile p]\ntype=wifi\n", "p twice"},
               {"[profile p]\nstate=3\n", "[profile p] type"},
               {"[profile p]\ntype=disconnected\n", "\"disconnected\""},
               {"[profile p]\ntype=wifi\nstate=up\n", "[profile p] state: \"up\""},
               {"[profile p]\ntype=wifi\nstrength=3\n", "[profile p] strength"},
               {"[settings]\nkey=1\n", "[settings] key: \"1\""},
               {"[settings]\nkey=int:1x\n", "int:1x"},
               {"[settings]\nkey=int:2147483648\n", "int:2147483648"},
               {"[settings]\nkey=double:1,5\n", "double:1,5"},
               {"[settings]\nkey=bool:maybe\n", "bool:maybe"},
               {"[settings]\nkey=float:true\n", "float:true"},
               {"[results]\nconnection_get_typ=1\n", "connection_get_typ"},
               {"[results]\nvconf_get_int=a\\nb\n", "vconf_get_int"},
               {"[system]\nmodel=3\n", "[system] model"},
               {"[setings]\nkey=int:1\n", "[setings]"}}) {
        std::string reason;
        EXPECT_FALSE(parse_state(text, reason)) << text;
        EXPECT_THAT(reason, HasSubstr(expected)) << text;
        EXPECT_EQ(reason.find('\n'), std::string::npos) << reason;
    }
}
