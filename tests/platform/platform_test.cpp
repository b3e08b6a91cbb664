#include "platform.h"

#include "base/unique_fd.h"
#include "files.h"
#include "platform_log.h"
#include "system_information.h"

#include <functional>
#include <optional>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace simulated_platform;
using namespace simulated_platform_tests;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

/** A device's state as a person would type it. */
std::string device(int consent, const std::string& type = "ethernet", int wired = 3, int home = 0) {
    return "[settings]\nconsent=int:" + std::to_string(consent) +
           "\nlanguage=string:en_GB\n[network]\ntype=" + type +
           "\nprofiles=wired;home\n[profile wired]\ntype=ethernet\nstate=" + std::to_string(wired) +
           "\n[profile home]\ntype=wifi\nstate=" + std::to_string(home) + "\n";
}

class PlatformTest : public testing::Test {
protected:
    /** On the device above, watched by a client. */
    void start_watched() {
        write_in_place(path_, device(0));
        platform_.emplace(path_, log_);
        connection_ = connect();
        watch_all();
    }
    void edit(const std::string& text) {
        write_in_place(path_, text);
        run_pending();
    }
    Network& network() { return platform_->network(); }

    /** What a call gives, or -1 when it fails. */
    int consent() {
        int value = -1;
        return platform_->settings().get_int("consent", &value) == 0 ? value : -1;
    }
    int type(void* connection) {
        connection_type_e type{};
        return network().get_type(connection, &type) == 0 ? type : -1;
    }
    int profile_type(void* profile) {
        connection_profile_type_e type{};
        return network().profile_get_type(profile, &type) == 0 ? type : -1;
    }

    void* connect() {
        void* connection = nullptr;
        EXPECT_EQ(network().create(&connection), 0);
        return connection;
    }
    /** The handle of each registered profile, in order; leaves the walk that it made. */
    std::vector<void*> profiles() {
        std::vector<void*> handles;
        void* profile = nullptr;
        network().get_profile_iterator(connection_, CONNECTION_ITERATOR_TYPE_REGISTERED, &walk_);
        while (network().iterator_has_next(walk_)) {
            EXPECT_EQ(network().iterator_next(walk_, &profile), 0);
            handles.push_back(profile);
        }
        EXPECT_NE(network().iterator_next(walk_, &profile), 0);
        return handles;
    }
    void watch_setting(const char* key) {
        const auto callback = [](keynode_t* node, void* self) {
            note(self, node->name + " " + std::to_string(node->value));
        };
        platform_->settings().watch(key, callback, this);
    }
    void watch_type(void* connection) {
        const auto callback = [](connection_type_e type, void* self) {
            note(self, "type " + std::to_string(type));
        };
        network().set_type_changed_cb(connection, callback, this);
    }
    void watch_all() {
        watch_setting("consent");
        watch_setting("language");
        watch_type(connection_);
        const auto callback = [](connection_profile_state_e state, void* self) {
            note(self, "profile " + std::to_string(state));
        };
        for (void* profile : profiles())
            network().profile_set_state_changed_cb(profile, callback, this);
    }
    static void note(void* self, const std::string& text) {
        auto* test = static_cast<PlatformTest*>(self);
        test->told_.push_back(text);
        if (const auto reaction = std::exchange(test->react_, nullptr)) reaction();
    }

    std::vector<std::string> complaints() { return lines_of(log_path_); }

    TemporaryFolder folder_;
    std::string path_ = folder_.file("state.ini");
    std::string log_path_ = folder_.file("platform.log");
    LogFile log_{log_path_.c_str()};
    std::optional<Platform> platform_;
    void* connection_ = nullptr;
    void* walk_ = nullptr;
    std::vector<std::string> told_;
    /** Run once, inside the next callback. */
    std::function<void()> react_;
};

}  // namespace

TEST_F(PlatformTest, TellsOfEditsInFileOrderHoweverTheyAreWritten) {
    const std::vector<std::pair<std::string, std::vector<std::string>>> edits{
        {device(1, "wifi", 0, 3), {"consent 1", "type 1", "profile 0", "profile 3"}},
        {device(1, "wifi", 2, 3), {"profile 2"}},
        // Nothing when only the writing differs.
        {device(1, "1", 2, 3) + "[network]\nwifi=2\n[settings]\nconsent=int:01\n", {}},
        {"[profile home]\ntype=wifi\nstate=1\n[settings]\nlanguage=string:fr\nconsent=int:2\n"
         "[network]\nprofiles=wired;home\n[profile wired]\ntype=ethernet\nstate=0\n",
         {"profile 1", "language 0", "consent 2", "profile 0", "type 0"}},
        // Its type alone; what is gone comes last, and once connected only.
        {"[settings]\nconsent=string:2\n", {"consent 0", "language 0", "profile 0"}},
        {device(0), {"consent 0", "language 0", "type 3", "profile 3"}},
    };
    start_watched();
    for (const auto write : {write_in_place, rename_over}) {
        for (const auto& [text, told] : edits) {
            const int earlier = consent();
            told_.clear();
            write(path_, text);
            EXPECT_EQ(consent(), earlier) << "until the main loop runs";
            run_pending();
            EXPECT_EQ(told_, told) << text;
        }
    }
    EXPECT_THAT(complaints(), IsEmpty());

    // A daemon that logs must not wake itself up by it.
    for (int count = 0; count < 3; ++count) {
        EXPECT_GT(log_.print(PLATFORM_LOG_NORMAL, "T", "line %d", count), 0);
        EXPECT_FALSE(g_main_context_pending(nullptr));
    }
}

TEST_F(PlatformTest, KeepsTheLastGoodStateWhileThereIsNoBetter) {
    start_watched();
    {
        std::ofstream file(path_, std::ios::trunc);
        file << device(1) << std::flush;
        write_in_place(folder_.file("other"), device(1));
        run_pending();
        EXPECT_EQ(consent(), 0) << "while it is still being written";
        EXPECT_THAT(complaints(), IsEmpty());
        file << "[torn";
    }
    run_pending();
    std::size_t reported = 1;
    for (const std::string& bad : {std::string(), device(1) + "[network", device(1, "wlan"),
                                   device(1).substr(0, device(1).size() - 1)}) {
        edit(bad);
        EXPECT_THAT(complaints(), SizeIs(++reported)) << bad;
        EXPECT_THAT(complaints().back(), HasSubstr(" ERROR PLATFORM " + path_ + ": "));
    }
    std::filesystem::remove(path_);
    run_pending();
    EXPECT_EQ(consent(), 0);
    EXPECT_THAT(told_, IsEmpty());
    edit(device(1));
    EXPECT_THAT(told_, ElementsAre("consent 1"));
    EXPECT_THAT(complaints(), SizeIs(reported));
}

TEST_F(PlatformTest, WithoutAFileNothingIsConnectedAndItsFolderMayComeAndGo) {
    const std::string outer = folder_.file("outer");
    path_ = outer + "/inner/state.ini";
    platform_.emplace(path_, log_);
    connection_ = connect();
    EXPECT_EQ(type(connection_), CONNECTION_TYPE_DISCONNECTED);
    EXPECT_EQ(consent(), -1);
    char* firmware = nullptr;
    EXPECT_NE(platform_->get_value_string(SYSTEM_INFO_KEY_FIRMWARE_VERSION, &firmware), 0);
    watch_all();
    watch_type(connect());
    for (const std::string& made : {outer, outer + "/inner"}) {
        std::filesystem::create_directory(made);
        run_pending();
    }
    edit(device(1));
    EXPECT_THAT(told_, ElementsAre("consent 1", "language 0", "type 3", "type 3"));

    std::filesystem::rename(outer, outer + "-away");
    std::filesystem::create_directories(folder_.file("next/inner"));
    write_in_place(folder_.file("next/inner/state.ini"), device(2));
    std::filesystem::rename(folder_.file("next"), outer);
    run_pending();
    EXPECT_EQ(consent(), 2);
    edit(device(3));
    EXPECT_EQ(consent(), 3);
    EXPECT_THAT(complaints(), SizeIs(1));
}

TEST_F(PlatformTest, EditsDuringACallbackEndInOneForTheLast) {
    start_watched();
    react_ = [this] {
        for (int value = 2; value <= 6; ++value) write_in_place(path_, device(value));
        rename_over(path_, device(7));
        EXPECT_EQ(consent(), 1);
    };
    edit(device(1));
    EXPECT_EQ(consent(), 7);
    EXPECT_THAT(told_, ElementsAre("consent 1", "consent 7"));
}

TEST_F(PlatformTest, AnEditOutlivesAnOverflowOfTheEventQueue) {
    int limit = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
    if (limit <= 0 || limit > 100000) GTEST_SKIP() << "the queue takes " << limit << " events";
    platform_.emplace(path_, log_);
    // Equal events in a row count once: two names in turn.
    for (int count = 0; count <= limit / 2; ++count) {
        for (const char* name : {"one", "two"})
            base::UniqueFd(open(folder_.file(name).c_str(), O_WRONLY | O_CREAT, 0600));
    }
    edit(device(1));
    EXPECT_EQ(consent(), 1);
}

TEST_F(PlatformTest, CallbacksMayChangeWhatIsRegistered) {
    start_watched();
    void* const second = connect();
    watch_type(second);
    const std::vector<void*> handles = profiles();

    // Inside the setting's: everything else is let go of, and watched anew in part.
    react_ = [&] {
        watch_setting("consent");
        for (int count = 0; count < 50; ++count) connect();
        network().profile_unset_state_changed_cb(handles[0]);
        react_ = [&] {
            EXPECT_EQ(network().destroy(connection_), 0);
            EXPECT_EQ(network().destroy(second), 0);
            connection_ = connect();
            EXPECT_EQ(profiles(), handles);
        };
    };
    edit(device(1, "wifi", 0, 3));
    EXPECT_THAT(told_, ElementsAre("consent 1", "type 1", "profile 3"));

    told_.clear();
    edit(device(2, "cellular", 3, 3));
    EXPECT_THAT(told_, ElementsAre("consent 2", "consent 2"));
}

TEST_F(PlatformTest, KnowsItsHandles) {
    start_watched();
    void* const profile = profiles().at(0);
    int foreign = 0;
    void* unused = nullptr;
    for (void* handle : std::vector<void*>{nullptr, &foreign, profile}) {
        EXPECT_EQ(type(handle), -1);
        EXPECT_NE(network().destroy(handle), 0);
        EXPECT_NE(network().iterator_next(handle, &unused), 0);
        EXPECT_FALSE(network().iterator_has_next(handle));
    }
    for (void* handle : std::vector<void*>{nullptr, &foreign, walk_}) {
        EXPECT_EQ(profile_type(handle), -1);
        EXPECT_NE(network().profile_unset_state_changed_cb(handle), 0);
    }

    // A released client takes its walks along; its profiles stay, and a handle
    // that was released is not given again.
    EXPECT_EQ(network().destroy(connection_), 0);
    EXPECT_EQ(type(connection_), -1);
    EXPECT_NE(network().destroy(walk_), 0);
    EXPECT_EQ(profile_type(profile), CONNECTION_PROFILE_TYPE_ETHERNET);
    EXPECT_NE(connect(), std::exchange(connection_, connect()));

    // A profile that is registered again comes back under its handle.
    edit("[network]\ntype=wifi\n");
    EXPECT_EQ(profile_type(profile), -1);
    edit(device(0));
    EXPECT_EQ(profiles().at(0), profile);
}
