#include "state.h"

#include "change.h"
#include "settings_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace simulated_platform;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

constexpr char device_text[] = R"(
[settings]
db/menu/kelo_home/homedatacontrol/defaultdisclaimeragree=int:0
db/menu_widget/language=string:en_GB
tune/volume=double:1.50
tune/mute=bool:true

[network]
# a comment
type=ethernet
wifi=1
cellular=5
ethernet=2
bluetooth=0
profiles=wired;home

[profile home]
type=wifi
state=1

[profile wired]
type=ethernet
state=3

[system]
firmware=T-1200.1

[results]
connection_get_type=-5
vconf_get_int=0
)";

State parsed(const std::string& text) {
    std::string reason;
    const std::optional<State> state = parse_state(text, reason);
    EXPECT_TRUE(state) << reason << "\n" << text;
    return state.value_or(State{});
}

/** A change as one text, so that a list of them reads well. */
std::vector<std::string> told(const std::string& before, const std::string& after) {
    std::vector<std::string> texts;
    for (const Change& change : changes_between(parsed(before), parsed(after))) {
        switch (change.kind) {
            case Change::Kind::setting:
                texts.push_back(change.name + " type " + std::to_string(change.type) + " value " +
                                std::to_string(change.value));
                break;
            case Change::Kind::connection_type:
                texts.push_back("connection " + std::to_string(change.value));
                break;
            case Change::Kind::profile_state:
                texts.push_back("profile " + change.name + " " + std::to_string(change.value));
                break;
        }
    }
    return texts;
}

}  // namespace

TEST(ParseState, ReadsEveryGroup) {
    const State state = parsed(device_text);

    const Setting* consent =
        state.setting("db/menu/kelo_home/homedatacontrol/defaultdisclaimeragree");
    ASSERT_TRUE(consent);
    EXPECT_EQ(consent->type, SETTINGS_TYPE_INT);
    EXPECT_EQ(consent->integer, 0);
    ASSERT_TRUE(state.setting("db/menu_widget/language"));
    EXPECT_EQ(state.setting("db/menu_widget/language")->type, setting_string);
    EXPECT_EQ(state.setting("db/menu_widget/language")->text, "en_GB");
    EXPECT_EQ(state.setting("tune/volume")->type, setting_double);
    EXPECT_EQ(state.setting("tune/mute")->type, setting_bool);
    EXPECT_FALSE(state.setting("tune/bass"));

    EXPECT_EQ(state.connection_type, 3);
    EXPECT_EQ(state.wifi, 1);
    EXPECT_EQ(state.cellular, 5);
    EXPECT_EQ(state.ethernet, 2);
    EXPECT_EQ(state.bluetooth, 0);
    ASSERT_EQ(state.profiles.size(), 2U);
    EXPECT_EQ(state.profiles[0].name, "wired");
    EXPECT_EQ(state.profiles[0].type, 2);
    EXPECT_EQ(state.profiles[0].state, 3);
    EXPECT_EQ(state.profiles[1].name, "home");
    EXPECT_EQ(state.profiles[1].type, 1);
    EXPECT_EQ(state.firmware, "T-1200.1");
    EXPECT_EQ(state.result(Call::connection_get_type), -5);
    EXPECT_EQ(state.result(Call::vconf_get_int), 0);
}

TEST(ParseState, WhatIsNotThereIsOffOrUnknown) {
    const State state = parsed("[network]\nprofiles=\n");
    EXPECT_TRUE(state.settings.empty());
    EXPECT_EQ(state.connection_type, 0);
    EXPECT_EQ(state.ethernet, 0);
    EXPECT_TRUE(state.profiles.empty());
    EXPECT_FALSE(state.firmware);
    for (const int result : state.results) EXPECT_EQ(result, 0);
}

TEST(ParseState, TheLastOfTwoEqualKeysCounts) {
    const State state = parsed("[settings]\na=int:1\na=int:2\n[settings]\na=int:3\n");
    ASSERT_EQ(state.settings.size(), 1U);
    EXPECT_EQ(state.settings[0].integer, 3);
}

TEST(ParseState, TypesGoByNameOrNumber) {
    const std::vector<std::pair<std::string, int>> connection_types{
        {"disconnected", 0}, {"wifi", 1}, {"cellular", 2}, {"ethernet", 3},
        {"bluetooth", 4},    {"2", 2},    {"5", 5},        {"-1", -1}};
    for (const auto& [name, number] : connection_types)
        EXPECT_EQ(parsed("[network]\ntype=" + name + "\n").connection_type, number) << name;

    const std::vector<std::pair<std::string, int>> profile_types{
        {"cellular", 0}, {"wifi", 1}, {"ethernet", 2}, {"bluetooth", 3}, {"3", 3}, {"9", 9}};
    for (const auto& [name, number] : profile_types) {
        const State state = parsed("[network]\nprofiles=p\n[profile p]\ntype=" + name + "\n");
        ASSERT_EQ(state.profiles.size(), 1U);
        EXPECT_EQ(state.profiles[0].type, number) << name;
        EXPECT_EQ(state.profiles[0].state, 0);
    }
}

TEST(ParseState, RefusesWhatItCannotTakeAndSaysWhy) {
    struct Case {
        std::string text;
        std::string reason;
    };
    const std::vector<Case> cases{
        {"", "no group"},
        {"# nothing yet\n", "no group"},
        {"[network]\ntype=wifi\nethernet=2", "no end"},
        {"[network]\ntype=wi", "no end"},
        {"type=wifi\n", "group"},
        {"[network\ntype=wifi\n", "[network"},
        {"[network]\ntype\n", "type"},
        {"[network]\ntype=wlan\n", "[network] type: \"wlan\""},
        {"[network]\ntype=\n", "[network] type: \"\""},
        {"[network]\nwifi=on\n", "[network] wifi: \"on\""},
        {"[network]\nwifi=99999999999\n", "[network] wifi"},
        {"[network]\ncable=1\n", "[network] cable"},
        {"[network]\nprofiles=wired\n", "[profile wired]"},
        {"[network]\nprofiles=p;p\n[profile p]\ntype=wifi\n", "p twice"},
        {"[profile p]\nstate=3\n", "[profile p] type"},
        {"[profile p]\ntype=disconnected\n", "\"disconnected\""},
        {"[profile p]\ntype=wifi\nstrength=3\n", "[profile p] strength"},
        {"[settings]\nkey=1\n", "[settings] key: \"1\""},
        {"[settings]\nkey=int:\n", "int:"},
        {"[settings]\nkey=int:1x\n", "int:1x"},
        {"[settings]\nkey=int:2147483648\n", "int:2147483648"},
        {"[settings]\nkey=double:1,5\n", "double:1,5"},
        {"[settings]\nkey=bool:maybe\n", "bool:maybe"},
        {"[settings]\nkey=float:1\n", "float:1"},
        {"[settings]\nkey=string:\xff\n", "key"},
        {"[results]\nconnection_get_typ=1\n", "connection_get_typ"},
        {"[results]\nconnection_get_type=yes\n", "connection_get_type"},
        {"[results]\nvconf_get_int=a\\nb\n", "vconf_get_int"},
        {"[system]\nmodel=3\n", "[system] model"},
        {"[setings]\nkey=int:1\n", "[setings]"},
    };
    for (const Case& bad : cases) {
        std::string reason;
        EXPECT_FALSE(parse_state(bad.text, reason)) << bad.text;
        EXPECT_THAT(reason, HasSubstr(bad.reason)) << bad.text;
        EXPECT_EQ(reason.find('\n'), std::string::npos) << reason;
    }
}

/** Every place that a writer can stop at: refused, or no value that was not meant. */
TEST(ParseState, ACutFileNeverGivesAnotherValue) {
    const std::string whole = device_text;
    const State state = parsed(whole);
    for (std::size_t size = 0; size < whole.size(); ++size) {
        std::string reason;
        const std::optional<State> cut = parse_state(whole.substr(0, size), reason);
        if (!cut) continue;
        for (const Setting& setting : cut->settings)
            EXPECT_EQ(setting.text, state.setting(setting.key)->text) << size;
        for (const Profile& profile : cut->profiles)
            EXPECT_EQ(profile.type, state.profile(profile.name)->type) << size;
        EXPECT_TRUE(cut->connection_type == 0 || cut->connection_type == state.connection_type);
        EXPECT_TRUE(!cut->firmware || cut->firmware == state.firmware);
    }
}

TEST(Changes, NoneWhenOnlyTheWritingDiffers) {
    EXPECT_THAT(told(device_text, device_text), ElementsAre());
    EXPECT_THAT(told("[settings]\na=int:1\nb=double:1.50\n[network]\ntype=wifi\n",
                     "[network]\ntype=1\nwifi=2\n[settings]\nb=double:1.5\na=int:01\n"),
                ElementsAre());
}

TEST(Changes, ComeInTheOrderOfTheNewerFile) {
    const std::string before =
        "[settings]\na=int:1\nb=string:x\n[network]\ntype=wifi\nprofiles=p;q\n"
        "[profile p]\ntype=wifi\n[profile q]\ntype=ethernet\n";
    EXPECT_THAT(told(before,
                     "[profile q]\ntype=ethernet\nstate=3\n[settings]\nb=string:y\na=int:2\n"
                     "[network]\nprofiles=p;q\ntype=ethernet\n[profile p]\ntype=wifi\nstate=1\n"),
                ElementsAre("profile q 3", "b type 42 value 0", "a type 41 value 2", "connection 3",
                            "profile p 1"));
}

TEST(Changes, OfTypeAloneAndOfWhatComesAndGoes) {
    EXPECT_THAT(told("[settings]\na=int:1\n", "[settings]\na=string:1\n"),
                ElementsAre("a type 42 value 0"));
    EXPECT_THAT(told("[settings]\na=int:1\nb=int:2\n[network]\ntype=wifi\nprofiles=p;q\n"
                     "[profile p]\ntype=wifi\nstate=3\n[profile q]\ntype=wifi\n",
                     "[settings]\nc=int:3\n"),
                ElementsAre("c type 41 value 3", "a type 0 value 0", "b type 0 value 0",
                            "connection 0", "profile p 0"));
    // A profile that is registered anew was disconnected before.
    EXPECT_THAT(told("[network]\ntype=wifi\n",
                     "[network]\ntype=wifi\nprofiles=p;q\n[profile p]\ntype=wifi\nstate=3\n"
                     "[profile q]\ntype=wifi\n"),
                ElementsAre("profile p 3"));
}
