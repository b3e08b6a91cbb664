#include "platform.h"

#include "files.h"
#include "platform_log.h"
#include "system_information.h"

#include <functional>
#include <memory>

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
           "\nethernet=2\nprofiles=wired;home\n[profile wired]\ntype=ethernet\nstate=" +
           std::to_string(wired) + "\n[profile home]\ntype=wifi\nstate=" + std::to_string(home) +
           "\n[system]\nfirmware=T-1200.1\n";
}

class PlatformTest : public testing::Test {
protected:
    void start() { platform_ = std::make_unique<Platform>(path_, log_); }
    void start(const std::string& state) {
        write_in_place(path_, state);
        start();
    }
    Settings& settings() { return platform_->settings(); }
    Network& network() { return platform_->network(); }

    int consent() {
        int value = -1;
        settings().get_int("consent", &value);
        return value;
    }
    bool wait_for_consent(int value) {
        return wait_until([&] { return consent() == value; });
    }

    void* connect() {
        void* connection = nullptr;
        EXPECT_EQ(network().create(&connection), 0);
        return connection;
    }

    /** The handle of each registered profile, in order. */
    std::vector<void*> profiles(void* connection) {
        std::vector<void*> handles;
        void* walk = nullptr;
        EXPECT_EQ(
            network().get_profile_iterator(connection, CONNECTION_ITERATOR_TYPE_REGISTERED, &walk),
            0);
        while (network().iterator_has_next(walk)) {
            void* profile = nullptr;
            EXPECT_EQ(network().iterator_next(walk, &profile), 0);
            handles.push_back(profile);
        }
        EXPECT_EQ(network().destroy(walk), 0);
        return handles;
    }

    void watch_all(void* connection) {
        settings().watch("consent", note_setting, this);
        settings().watch("language", note_setting, this);
        network().set_type_changed_cb(connection, note_type, this);
        for (void* profile : profiles(connection))
            network().profile_set_state_changed_cb(profile, note_profile, this);
    }

    void note(const std::string& text) {
        told_.push_back(text);
        if (const auto reaction = std::exchange(react_, nullptr)) reaction();
    }
    static void note_setting(keynode_t* node, void* self) {
        static_cast<PlatformTest*>(self)->note(node->name + " " + std::to_string(node->type) + " " +
                                               std::to_string(node->value));
    }
    static void note_type(connection_type_e type, void* self) {
        static_cast<PlatformTest*>(self)->note("type " + std::to_string(type));
    }
    static void note_profile(connection_profile_state_e state, void* self) {
        static_cast<PlatformTest*>(self)->note("profile " + std::to_string(state));
    }

    std::vector<std::string> complaints() { return lines_of(log_path_); }

    TemporaryFolder folder_;
    std::string path_ = folder_.file("state.ini");
    std::string log_path_ = folder_.file("platform.log");
    LogFile log_{log_path_.c_str()};
    std::unique_ptr<Platform> platform_;
    std::vector<std::string> told_;
    /** Run once, inside the next callback. */
    std::function<void()> react_;
};

}  // namespace

TEST_F(PlatformTest, TellsOfEditsInFileOrderHoweverTheyAreWritten) {
    using Writer = void (*)(const std::string&, const std::string&);
    for (const Writer write : {Writer(write_in_place), Writer(rename_over)}) {
        told_.clear();
        start(device(0));
        void* connection = connect();
        watch_all(connection);
        write(path_, device(1, "wifi", 0, 3));
        ASSERT_TRUE(wait_until([&] { return told_.size() >= 4; }));
        EXPECT_THAT(told_, ElementsAre("consent 41 1", "type 1", "profile 0", "profile 3"));
        connection_type_e type{};
        EXPECT_EQ(network().get_type(connection, &type), 0);
        EXPECT_EQ(type, CONNECTION_TYPE_WIFI);

        // The next edit, of something else, tells of that alone.
        write(path_, device(1, "wifi", 2, 3));
        ASSERT_TRUE(wait_until([&] { return told_.size() >= 5; }));
        EXPECT_THAT(told_, SizeIs(5));
        EXPECT_EQ(told_.back(), "profile 2");
    }
    EXPECT_THAT(complaints(), IsEmpty());
}

TEST_F(PlatformTest, AnswersTheLastReadStateUntilTheMainLoopRuns) {
    start(device(0));
    write_in_place(path_, device(1));
    EXPECT_EQ(consent(), 0);
    EXPECT_TRUE(wait_for_consent(1));
}

TEST_F(PlatformTest, ABadFileIsReportedOnceAndTheNextGoodOneTaken) {
    start(device(0));
    watch_all(connect());
    const std::vector<std::string> bad_files{"", device(1) + "[network", device(1, "wlan"),
                                             device(1).substr(0, device(1).size() - 1)};
    for (const std::string& bad : bad_files) {
        const std::size_t reported = complaints().size();
        write_in_place(path_, bad);
        EXPECT_TRUE(wait_until([&] { return complaints().size() > reported; })) << bad;
        run_pending();
        EXPECT_THAT(complaints(), SizeIs(reported + 1)) << bad;
        EXPECT_THAT(complaints().back(), HasSubstr("ERROR PLATFORM " + path_ + ": "));
        EXPECT_EQ(consent(), 0);
    }
    EXPECT_THAT(told_, IsEmpty());
    write_in_place(path_, device(1));
    EXPECT_TRUE(wait_for_consent(1));
    EXPECT_THAT(told_, ElementsAre("consent 41 1"));
    EXPECT_THAT(complaints(), SizeIs(bad_files.size()));
}

TEST_F(PlatformTest, AFileThatIsStillBeingWrittenIsLeftAlone) {
    start(device(0));
    const std::string text = device(1);
    const Descriptor file(open(path_.c_str(), O_WRONLY | O_TRUNC));
    ASSERT_TRUE(file);
    for (const char byte : text) {
        ASSERT_EQ(write(file.get(), &byte, 1), 1);
        run_pending();
    }
    EXPECT_EQ(consent(), 0);
    EXPECT_THAT(complaints(), IsEmpty());
}

TEST_F(PlatformTest, ARemovedFileLeavesItsState) {
    start(device(1));
    std::filesystem::remove(path_);
    run_pending();
    EXPECT_EQ(consent(), 1);
    rename_over(path_, device(0));
    EXPECT_TRUE(wait_for_consent(0));
}

TEST_F(PlatformTest, WithoutAFileNothingIsConnectedUntilItComes) {
    start();
    EXPECT_THAT(complaints(), SizeIs(1));
    void* connection = connect();
    connection_type_e type{CONNECTION_TYPE_BT};
    EXPECT_EQ(network().get_type(connection, &type), 0);
    EXPECT_EQ(type, CONNECTION_TYPE_DISCONNECTED);
    EXPECT_THAT(profiles(connection), IsEmpty());
    EXPECT_EQ(consent(), -1);
    char* firmware = nullptr;
    EXPECT_NE(platform_->get_value_string(SYSTEM_INFO_KEY_FIRMWARE_VERSION, &firmware), 0);
    watch_all(connection);

    write_in_place(path_, device(1));
    ASSERT_TRUE(wait_for_consent(1));
    EXPECT_THAT(told_, ElementsAre("consent 41 1", "language 42 0", "type 3"));
    EXPECT_THAT(profiles(connection), SizeIs(2));
}

TEST_F(PlatformTest, FollowsItsFolderThroughMakingRemovingAndRenaming) {
    const std::string outer = folder_.file("outer");
    const std::string inner = outer + "/inner";
    path_ = inner + "/state.ini";
    start();
    EXPECT_THAT(complaints(), SizeIs(1));

    std::filesystem::create_directory(outer);
    run_pending();
    std::filesystem::create_directory(inner);
    run_pending();
    write_in_place(path_, device(1));
    EXPECT_TRUE(wait_for_consent(1));

    std::filesystem::remove_all(outer);
    run_pending();
    std::filesystem::create_directories(inner);
    write_in_place(path_, device(2));
    EXPECT_TRUE(wait_for_consent(2));

    std::filesystem::rename(outer, outer + "-away");
    std::filesystem::create_directories(folder_.file("next/inner"));
    write_in_place(folder_.file("next/inner/state.ini"), device(3));
    std::filesystem::rename(folder_.file("next"), outer);
    EXPECT_TRUE(wait_for_consent(3));
    write_in_place(outer + "-away/inner/state.ini", device(9));
    write_in_place(path_, device(4));
    EXPECT_TRUE(wait_for_consent(4));
    EXPECT_THAT(complaints(), SizeIs(1));
}

TEST_F(PlatformTest, EditsDuringACallbackEndInOneForTheLast) {
    start(device(0));
    watch_all(connect());
    react_ = [this] {
        for (int value = 2; value <= 6; ++value) write_in_place(path_, device(value));
        rename_over(path_, device(7));
        EXPECT_EQ(consent(), 1);
    };
    write_in_place(path_, device(1));
    ASSERT_TRUE(wait_for_consent(7));
    EXPECT_THAT(told_, ElementsAre("consent 41 1", "consent 41 7"));
}

TEST_F(PlatformTest, AnEditOutlivesAnOverflowOfTheEventQueue) {
    int limit = 0;
    std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> limit;
    if (limit <= 0 || limit > 100000) GTEST_SKIP() << "the queue takes " << limit << " events";
    start(device(0));
    // Equal events in a row count once: two names in turn.
    for (int count = 0; count <= limit / 2; ++count) {
        for (const char* name : {"one", "two"})
            Descriptor(open(folder_.file(name).c_str(), O_WRONLY | O_CREAT, 0600));
    }
    write_in_place(path_, device(1));
    EXPECT_TRUE(wait_for_consent(1));
}

TEST_F(PlatformTest, CallbacksMayChangeWhatIsRegistered) {
    start(device(0, "ethernet", 3, 0));
    void* first = connect();
    void* second = connect();
    settings().watch("consent", note_setting, this);
    network().set_type_changed_cb(first, note_type, this);
    network().set_type_changed_cb(second, note_type, this);
    const std::vector<void*> handles = profiles(first);
    network().profile_set_state_changed_cb(handles[0], note_profile, this);
    network().profile_set_state_changed_cb(handles[1], note_profile, this);

    // Inside the setting's: everything else is let go of, and watched anew in part.
    react_ = [&] {
        settings().watch("consent", note_setting, this);
        for (int count = 0; count < 50; ++count) connect();
        network().profile_unset_state_changed_cb(handles[0]);
        react_ = [&] {
            EXPECT_EQ(network().destroy(first), 0);
            EXPECT_EQ(network().destroy(second), 0);
            EXPECT_EQ(profiles(connect()), handles);
        };
    };
    write_in_place(path_, device(1, "wifi", 0, 3));
    ASSERT_TRUE(wait_for_consent(1));
    EXPECT_THAT(told_, ElementsAre("consent 41 1", "type 1", "profile 3"));

    told_.clear();
    write_in_place(path_, device(2, "cellular", 3, 3));
    ASSERT_TRUE(wait_for_consent(2));
    EXPECT_THAT(told_, ElementsAre("consent 41 2", "consent 41 2"));
}

TEST_F(PlatformTest, KnowsItsHandles) {
    start(device(0));
    void* connection = connect();
    void* walk = nullptr;
    ASSERT_EQ(
        network().get_profile_iterator(connection, CONNECTION_ITERATOR_TYPE_REGISTERED, &walk), 0);
    void* profile = nullptr;
    ASSERT_EQ(network().iterator_next(walk, &profile), 0);

    connection_type_e type{};
    connection_profile_type_e profile_type{};
    const auto next = [this](void* handle) {
        void* unused = nullptr;
        return network().iterator_next(handle, &unused);
    };
    int foreign = 0;
    for (void* handle : {static_cast<void*>(nullptr), static_cast<void*>(&foreign), profile}) {
        EXPECT_NE(network().get_type(handle, &type), 0);
        EXPECT_NE(network().destroy(handle), 0);
        EXPECT_NE(next(handle), 0);
        EXPECT_FALSE(network().iterator_has_next(handle));
    }
    for (void* handle : {static_cast<void*>(nullptr), static_cast<void*>(&foreign), walk}) {
        EXPECT_NE(network().profile_get_type(handle, &profile_type), 0);
        EXPECT_NE(network().profile_unset_state_changed_cb(handle), 0);
    }

    // A released client takes its walks along; its profiles stay, and a handle
    // that was released is not given again.
    EXPECT_EQ(network().destroy(connection), 0);
    EXPECT_NE(network().destroy(connection), 0);
    EXPECT_NE(network().destroy(walk), 0);
    EXPECT_EQ(network().profile_get_type(profile, &profile_type), 0);
    EXPECT_EQ(profile_type, CONNECTION_PROFILE_TYPE_ETHERNET);
    EXPECT_NE(connect(), connection);
    EXPECT_NE(network().get_type(connection, &type), 0);
}

TEST_F(PlatformTest, AProfileThatIsNoLongerRegisteredComesBackUnderItsHandle) {
    start(device(0));
    void* connection = connect();
    void* wired = profiles(connection).at(0);
    network().profile_set_state_changed_cb(wired, note_profile, this);
    write_in_place(path_, "[settings]\nconsent=int:1\n");
    ASSERT_TRUE(wait_for_consent(1));
    connection_profile_type_e type{};
    EXPECT_NE(network().profile_get_type(wired, &type), 0);
    write_in_place(path_, device(2));
    ASSERT_TRUE(wait_for_consent(2));
    EXPECT_EQ(profiles(connection).at(0), wired);
    EXPECT_EQ(network().profile_get_type(wired, &type), 0);
    EXPECT_THAT(told_, ElementsAre("profile 0", "profile 3"));
}

/** A daemon that logs must not wake itself up by it. */
TEST_F(PlatformTest, LogLinesAreNoEvents) {
    start(device(0));
    run_pending();
    for (int count = 0; count < 3; ++count) {
        EXPECT_GT(log_.print(PLATFORM_LOG_NORMAL, "T", "line %d", count), 0);
        EXPECT_FALSE(g_main_context_pending(nullptr));
    }
}
