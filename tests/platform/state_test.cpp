#include "state.h"

#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace simulated_platform;
using testing::HasSubstr;

namespace {

State parsed(const std::string& text) {
    std::string reason;
    const std::optional<State> state = parse_state(text, reason);
    EXPECT_TRUE(state) << reason << "\n" << text;
    return state.value_or(State{});
}

/** A state as one text, so that a table of them reads well. */
std::string described(const State& state) {
    std::ostringstream text;
    text << state.connection_type << " wifi " << state.wifi << " cellular " << state.cellular
         << " ethernet " << state.ethernet << " bluetooth " << state.bluetooth;
    for (const Setting& setting : state.settings)
        text << ", " << setting.key << ' ' << setting.type << ' ' << setting.text << ' '
             << setting.integer;
    for (const Profile& profile : state.profiles)
        text << ", " << profile.name << ' ' << profile.type << ' ' << profile.state;
    text << ", " << state.firmware.value_or("no firmware");
    return text.str();
}

}  // namespace

TEST(ParseState, ReadsEveryGroup) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"[settings]\ndb/menu/agree=int:-3\nlanguage=string:en_GB\nvolume=double:1.50\n"
         "mute=bool:true\n[network]\n# a comment\ntype=ethernet\nwifi=1\ncellular=5\nethernet=2\n"
         "bluetooth=4\nprofiles=wired;home\n[profile home]\ntype=wifi\nstate=1\n[profile wired]\n"
         "type=ethernet\nstate=3\n[profile away]\ntype=wifi\n[system]\nfirmware=T-1200.1\n",
         "3 wifi 1 cellular 5 ethernet 2 bluetooth 4, db/menu/agree 41 -3 -3, "
         "language 42 en_GB 0, volume 43 1.5 0, mute 44 true 0, wired 2 3, home 1 1, T-1200.1"},
        {"[network]\ntype=disconnected\nprofiles=\n",
         "0 wifi 0 cellular 0 ethernet 0 bluetooth 0, no firmware"},
        // The last of two equal keys counts.
        {"[settings]\na=int:1\na=int:2\n[settings]\na=int:3\n",
         "0 wifi 0 cellular 0 ethernet 0 bluetooth 0, a 41 3 3, no firmware"},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(described(parsed(text)), expected);
}

TEST(ParseState, TypesGoByNameOrNumber) {
    struct Case {
        std::string name;
        int connection;
        int profile;
    };
    const std::vector<Case> cases{{"wifi", 1, 1},      {"cellular", 2, 0}, {"ethernet", 3, 2},
                                  {"bluetooth", 4, 3}, {"2", 2, 2},        {"-9", -9, -9}};
    for (const auto& [name, connection, profile] : cases) {
        const State state =
            parsed("[network]\nprofiles=p\ntype=" + name + "\n[profile p]\ntype=" + name + "\n");
        EXPECT_EQ(state.connection_type, connection) << name;
        EXPECT_EQ(state.profiles.at(0).type, profile) << name;
    }
}

TEST(ParseState, RefusesWhatItCannotTakeAndSaysWhy) {
    const std::vector<std::pair<std::string, std::string>> cases{
        {"", "no group"},
        {"[network]\ntype=wifi\nethernet=2", "no end"},
        {"type=wifi\n", "group"},
        {"[network\ntype=wifi\n", "[network"},
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
        {"[settings]\nkey=double:\n", "double:"},
        {"[settings]\nkey=double:1,5\n", "double:1,5"},
        {"[settings]\nkey=bool:maybe\n", "bool:maybe"},
        {"[settings]\nkey=float:true\n", "float:true"},
        {"[results]\nconnection_get_typ=1\n", "connection_get_typ"},
        {"[results]\nvconf_get_int=a\\nb\n", "vconf_get_int"},
        {"[system]\nmodel=3\n", "[system] model"},
        {"[setings]\nkey=int:1\n", "[setings]"},
    };
    for (const auto& [text, expected] : cases) {
        std::string reason;
        EXPECT_FALSE(parse_state(text, reason)) << text;
        EXPECT_THAT(reason, HasSubstr(expected)) << text;
        EXPECT_EQ(reason.find('\n'), std::string::npos) << reason;
    }
}
