/** What callbacks do, and what a program outside the process cannot see. */
#include "platform.h"

#include "files.h"
#include "platform_log.h"

#include <functional>
#include <optional>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

using namespace simulated_platform;
using test_support::write_file;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

std::string device(int consent, const std::string& type = "ethernet", int wired = 3, int home = 0) {
    return "[settings]\nconsent=int:" + std::to_string(consent) + "\n[network]\ntype=" + type +
           "\nprofiles=wired;home\n[profile wired]\ntype=ethernet\nstate=" + std::to_string(wired) +
           "\n[profile home]\ntype=wifi\nstate=" + std::to_string(home) + "\n";
}

class PlatformTest : public testing::Test {
protected:
    /** On the device above, watched by a client. */
    void start_watched() {
        write_file(path_, device(0));
        platform_.emplace(path_, log_);
        connection_ = connect();
        watch_consent();
        watch_type(connection_);
        const auto callback = [](connection_profile_state_e state, void* self) {
            note(self, "profile " + std::to_string(state));
        };
        for (void* profile : profiles()) {
            network().profile_set_state_changed_cb(profile, callback, this);
        }
    }
    void edit(const std::string& text) {
        write_file(path_, text);
        // An edit is an event by the time its writer continues.
        while (g_main_context_iteration(nullptr, FALSE) != FALSE) {
        }
    }
    Network& network() { return platform_->network(); }
    void* connect() {
        void* connection = nullptr;
        EXPECT_EQ(network().create(&connection), 0);
        return connection;
    }
    /** The handle of each registered profile; leaves their iterator. */
    std::vector<void*> profiles() {
        std::vector<void*> handles;
        void* profile = nullptr;
        network().get_profile_iterator(connection_, CONNECTION_ITERATOR_TYPE_REGISTERED,
                                       &iterator_);
        while (network().iterator_next(iterator_, &profile) == 0) {
            handles.push_back(profile);
        }
        return handles;
    }
    void watch_consent() {
        const auto callback = [](keynode_t* node, void* self) {
            note(self, node->name + " " + std::to_string(node->value));
        };
        platform_->settings().watch("consent", callback, this);
    }
    void watch_type(void* connection) {
        const auto callback = [](connection_type_e type, void* self) {
            note(self, "type " + std::to_string(type));
        };
        network().set_type_changed_cb(connection, callback, this);
    }
    static void note(void* self, const std::string& text) {
        auto* test = static_cast<PlatformTest*>(self);
        test->reported_.push_back(text);
        if (const auto reaction = std::exchange(test->react_, nullptr)) {
            reaction();
        }
    }

    test_support::TemporaryDirectory directory_;
    std::string path_ = directory_ / "state.ini";
    std::string log_path_ = directory_ / "platform.log";
    LogFile log_{log_path_.c_str()};
    std::optional<Platform> platform_;
    void* connection_ = nullptr;
    void* iterator_ = nullptr;
    std::vector<std::string> reported_;
    /** Run once, inside the next callback. */
    std::function<void()> react_;
};

}  // namespace

TEST_F(PlatformTest, CallbacksMayChangeWhatIsRegistered) {
    start_watched();
    void* const second = connect();
    watch_type(second);
    const std::vector<void*> handles = profiles();

    // The setting's callback releases everything else, and watches some of it anew.
    react_ = [&] {
        watch_consent();
        for (int count = 0; count < 50; ++count) {
            connect();
        }
        network().profile_unset_state_changed_cb(handles[0]);
        react_ = [&] {
            EXPECT_EQ(network().destroy(connection_), 0);
            EXPECT_EQ(network().destroy(second), 0);
            connection_ = connect();
            EXPECT_EQ(profiles(), handles);
        };
    };
    edit(device(1, "wifi", 0, 3));
    EXPECT_THAT(reported_, ElementsAre("consent 1", "type 1", "profile 3"));

    reported_.clear();
    edit(device(2, "cellular", 3, 3));
    EXPECT_THAT(reported_, ElementsAre("consent 2", "consent 2"));

    edit("[network]\ntype=wifi\n");
    connection_profile_type_e type{};
    EXPECT_NE(network().profile_get_type(handles[0], &type), 0) << "no longer registered";
    EXPECT_THAT(profiles(), IsEmpty());
    EXPECT_EQ(network().destroy(connection_), 0);
    EXPECT_NE(network().destroy(iterator_), 0) << "released with its client";
}

TEST_F(PlatformTest, LoggingDoesNotWakeTheMainLoop) {
    start_watched();
    for (int count = 0; count < 3; ++count) {
        EXPECT_GT(log_.print(PLATFORM_LOG_NORMAL, "T", "line %d", count), 0);
        while (g_main_context_pending(nullptr) != FALSE) {
            ASSERT_EQ(count, 0) << "the first line creates the file";
            g_main_context_iteration(nullptr, FALSE);
        }
    }
}

TEST_F(PlatformTest, ReportsThatItCannotWatch) {
    log_.print(PLATFORM_LOG_NORMAL, "T", "opens the log");
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    platform_.emplace(path_, log_);
    setrlimit(RLIMIT_NOFILE, &limit);
    const auto errors = test_support::split_lines(test_support::read_file(log_path_));
    ASSERT_THAT(errors, SizeIs(3));
    EXPECT_THAT(errors[1], HasSubstr("failed to watch " + path_ + ": Too many open files"));
}
