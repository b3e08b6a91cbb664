/**
 * Runs the files in transcripts/, each of which is a test. Lines that begin with
 * "> " are commands, those of `commands` below; the lines that follow are what the
 * daemon must log and call in answer. After "< ", the answer is not compared. "#"
 * begins a comment.
 *
 * daemon-tests --rewrite-transcripts replaces the expected answers with the
 * daemon's, for `git diff` to show what has changed.
 */
#include "ADUtils.h"
#include "adagentd.h"
#include "base/glib_owned.h"
#include "files.h"
#include "recorder.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <type_traits>

#include <glib.h>
#include <sys/stat.h>
#include <unistd.h>

/** The daemon's own. */
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
extern "C" int __real_main();

namespace daemon_tests {
namespace {

namespace fs = std::filesystem;

static_assert(offsetof(CADAgentd, m_pADLibHandler) == 0 &&
              offsetof(CADAgentd, m_hProfile) == sizeof(void*) &&
              offsetof(CADAgentd, m_hConnection) == 2 * sizeof(void*) &&
              offsetof(CADAgentd, m_bStartDone) == 3 * sizeof(void*));

bool rewrite_transcripts = false;
std::unique_ptr<CADAgentd> controller;
std::unique_ptr<CADLibs> libs;
/** By event, the commands to run after so many more of it. */
std::multimap<std::string, std::pair<int, std::string>> schedule;

/** A command's arguments. */
class Arguments {
public:
    explicit Arguments(std::string text) : text_(std::move(text)) {
        std::istringstream stream(text_);
        words_.assign(std::istream_iterator<std::string>(stream), {});
    }
    [[nodiscard]] std::set<std::string> words() const { return {words_.begin(), words_.end()}; }
    [[nodiscard]] std::string word(size_t index) const {
        return index < words_.size() ? words_[index] : "";
    }
    /** A word as a C string: null for "null". */
    [[nodiscard]] const char* text(size_t index) const {
        return word(index) == "null" ? nullptr : words_.at(index).c_str();
    }
    [[nodiscard]] int number(size_t index) const { return std::stoi(word(index), nullptr, 0); }
    [[nodiscard]] std::vector<int> numbers(size_t from) const {
        std::vector<int> result;
        for (size_t i = from; i < words_.size(); ++i) {
            result.push_back(number(i));
        }
        return result;
    }
    /** The text after so many words, with its C escapes replaced. */
    [[nodiscard]] std::string rest(size_t skipped) const {
        size_t begin = 0;
        while (skipped-- > 0) {
            begin = std::min(text_.find(' ', begin), text_.size() - 1) + 1;
        }
        return base::Owned<char>(g_strcompress(text_.c_str() + begin)).get();
    }
    [[nodiscard]] std::string host_path() const { return device.host_path(word(0)); }
    /** The node or the controller, or null for "null". */
    [[nodiscard]] keynode_t* node() const { return text(0) ? &device.node : nullptr; }
    [[nodiscard]] void* user_data(size_t index) const {
        CADAgentd* const agentd = controller ? controller.get() : gpadagentd;
        return word(index) == "null" ? nullptr : agentd;
    }

private:
    std::string text_;
    std::vector<std::string> words_;
};

void show(bool value) { record(value ? "= true" : "= false"); }
void show(int value) { record("= " + std::to_string(value)); }
void show(const std::string& value) { record("= \"" + value + "\""); }
void show(const void* value) { record("= " + name(value)); }

using Args = const Arguments&;
using Command = std::function<void(Args)>;

/** Runs a member function without arguments and shows its result. */
template <typename Class, typename Result>
Command member(std::unique_ptr<Class>& object, Result (Class::*function)()) {
    return [&object, function](Args) {
        if constexpr (std::is_void_v<Result>) {
            (*object.*function)();
        } else {
            show((*object.*function)());
        }
    };
}

/** The same for functions. */
template <typename Result>
Command function(Result (*function)()) {
    return [function](Args) { show(function()); };
}
Command function(int (*function)(const char*)) {
    return [function](Args a) { show(function(a.text(0))); };
}
Command function(int (*function)(const char*, const char*)) {
    return [function](Args a) { show(function(a.text(0), a.text(1))); };
}

const std::map<std::string, Command> commands = {
    // The device's files.
    {"put", [](Args a) { device.put(a.word(0), a.rest(1)); }},
    {"remove", [](Args a) { device.remove(a.word(0)); }},
    {"fifo", [](Args a) { mkfifo(a.host_path().c_str(), 0600); }},
    {"link", [](Args a) { fs::create_symlink(a.word(1), a.host_path()); }},
    {"resize", [](Args a) { fs::resize_file(a.host_path(), std::stoull(a.word(1))); }},
    {"append",
     [](Args a) {
         std::ofstream file(a.host_path(), std::ios::app);
         for (int i = 0; i < a.number(1); ++i) {
             file << a.rest(2);
         }
     }},
    {"show", [](Args a) { show(test_support::read_file(a.host_path())); }},
    {"unreadable", [](Args a) { device.unreadable = a.words(); }},
    // What else the daemon finds. A list replaces the one before.
    {"connection", [](Args a) { device.connection = a.numbers(0); }},
    {"profiles", [](Args a) { device.profiles = a.numbers(0); }},
    {"consent", [](Args a) { device.consent = a.number(0); }},
    {"node",
     [](Args a) {
         device.node = {a.word(2), a.number(0), a.number(1)};
     }},
    {"answers",
     [](Args a) {
         const std::vector<int> answers = a.numbers(1);
         device.answers[a.word(0)].assign(answers.begin(), answers.end());
     }},
    {"throws", [](Args a) { device.throws = {a.word(0)}; }},
    {"image_manifest", [](Args a) { device.image_manifest = a.rest(0); }},
    {"loader_errors", [](Args a) { device.loader_errors = a.words(); }},
    {"not_found", [](Args a) { device.not_found = a.words(); }},
    {"so_version", [](Args a) { device.so_version = a.word(0); }},
    {"update_result", [](Args a) { device.update_result = a.number(0); }},
    {"no_loop", [](Args) { device.has_loop = false; }},
    {"no_memory", [](Args) { device.memory_is_full = true; }},
    // after NUMBER EVENT COMMAND: runs a command then; the events are Device::on_event's.
    {"after",
     [](Args a) {
         schedule.insert({a.word(1), {a.number(0), a.rest(2)}});
     }},
    // The process.
    {"main", function(__real_main)},
    {"adagentd_Start",
     [](Args) {
         device.controller = nullptr;
         show(adagentd_Start());
         EXPECT_EQ(device.controller, gpadagentd);
     }},
    {"sig_quit", [](Args a) { sig_quit(a.number(0)); }},
    {"sigterm_handler", [](Args a) { sigterm_handler(a.number(0)); }},
    {"gpadagentd", [](Args) { show(gpadagentd != nullptr); }},
    {"loop", [](Args) { show(loop != nullptr); }},
    {"delete_gpadagentd", [](Args) { delete std::exchange(gpadagentd, nullptr); }},
    // The controller.
    {"CADAgentd",
     [](Args) {
         device.controller = nullptr;
         controller = std::make_unique<CADAgentd>();
         EXPECT_EQ(device.controller, controller.get());
     }},
    {"~CADAgentd", [](Args) { controller.reset(); }},
    {"forget_library",
     [](Args) { libs.reset(std::exchange(controller->m_pADLibHandler, nullptr)); }},
    {"restore_library", [](Args) { controller->m_pADLibHandler = libs.release(); }},
    {"m_bStartDone", [](Args) { show(controller->m_bStartDone); }},
    {"Start", member(controller, &CADAgentd::Start)},
    {"m_IsValidNetwork", member(controller, &CADAgentd::m_IsValidNetwork)},
    {"m_GetConnectionProfile", member(controller, &CADAgentd::m_GetConnectionProfile)},
    {"RegisterNetWorkStateChangeCB", member(controller, &CADAgentd::RegisterNetWorkStateChangeCB)},
    {"UnRegisterNetWorkStateChangeCB",
     member(controller, &CADAgentd::UnRegisterNetWorkStateChangeCB)},
    {"m_NetworkStateChangeCB",
     [](Args a) {
         CADAgentd::m_NetworkStateChangeCB(connection_profile_state_e(a.number(0)), a.user_data(1));
     }},
    {"m_NetWorkTypeChangeCB",
     [](Args a) {
         CADAgentd::m_NetWorkTypeChangeCB(connection_type_e(a.number(0)), a.user_data(1));
     }},
    {"m_VConfLanguageChangeCB",
     [](Args a) { CADAgentd::m_VConfLanguageChangeCB(a.node(), a.user_data(1)); }},
    {"m_VConfTermChangeCB",
     [](Args a) { CADAgentd::m_VConfTermChangeCB(a.node(), a.user_data(1)); }},
    {"m_CountryCodeChangeCB",
     [](Args a) { CADAgentd::m_CountryCodeChangeCB(a.node(), a.user_data(1)); }},
    {"m_RequestData", member(controller, &CADAgentd::m_RequestData)},
    {"m_CheckFirmVersion", member(controller, &CADAgentd::m_CheckFirmVersion)},
    {"m_WriteFirmVersion", member(controller, &CADAgentd::m_WriteFirmVersion)},
    {"m_GetXmlValue",
     [](Args a) {
         show(controller->m_GetXmlValue(a.word(0), a.word(1) == "-" ? "" : a.word(1), a.word(2)));
     }},
    {"m_GetValidSoFile", member(controller, &CADAgentd::m_GetValidSoFile)},
    {"m_CheckZelPath", member(controller, &CADAgentd::m_CheckZelPath)},
    {"m_Update", member(controller, &CADAgentd::m_Update)},
    {"m_DownloadImg", member(controller, &CADAgentd::m_DownloadImg)},
    {"m_GetImgVersion", member(controller, &CADAgentd::m_GetImgVersion)},
    {"m_ReplaceLibSo", member(controller, &CADAgentd::m_ReplaceLibSo)},
    // The binding.
    {"CADLibs", [](Args) { libs = std::make_unique<CADLibs>(); }},
    {"~CADLibs", [](Args) { libs.reset(); }},
    {"CADLibs::Start", [](Args a) { show(libs->Start(a.word(0))); }},
    {"CADLibs::Destory", member(libs, &CADLibs::Destory)},
    {"m_GetHanlder", [](Args a) { show(libs->m_GetHanlder(a.word(0))); }},
    {"GetAdAgentInit", member(libs, &CADLibs::GetAdAgentInit)},
    {"GetAdAgentClear", member(libs, &CADLibs::GetAdAgentClear)},
    {"GetAdAgentRegister", member(libs, &CADLibs::GetAdAgentRegister)},
    {"GetAdAgentUnRegister", member(libs, &CADLibs::GetAdAgentUnRegister)},
    {"GetAdAgentRequest", member(libs, &CADLibs::GetAdAgentRequest)},
    {"GetAdAgentRequestSync", member(libs, &CADLibs::GetAdAgentRequestSync)},
    {"GetAdAgentReport", member(libs, &CADLibs::GetAdAgentReport)},
    {"GetAdAgentLaunch", member(libs, &CADLibs::GetAdAgentLaunch)},
    {"GetAdAgentUpdate", member(libs, &CADLibs::GetAdAgentUpdate)},
    {"GetAdAgentSetSoVersion", member(libs, &CADLibs::GetAdAgentSetSoVersion)},
    {"GetAdAgentGetSoVersion", member(libs, &CADLibs::GetAdAgentGetSoVersion)},
    {"GetAdAgentPsidGet", member(libs, &CADLibs::GetAdAgentPsidGet)},
    {"GetAdAgentConfigServer", member(libs, &CADLibs::GetAdAgentConfigServer)},
    // The utilities.
    {"system_cmd", [](Args a) { show(system_cmd(a.text(0) ? a.rest(0).c_str() : nullptr)); }},
    {"check_existed", function(check_existed)},
    {"ad_mounter_create", function(ad_mounter_create)},
    {"ad_remove_lib_so_path", function(ad_remove_lib_so_path)},
    {"ad_mount", function(ad_mount)},
    {"ad_umount", function(ad_umount)},
    {"ad_replace_img", function(ad_replace_img)},
    {"ad_copy", function(ad_copy)},
    {"ad_copy_lib", function(ad_copy_lib)},
    {"ad_copy_path", function(ad_copy_path)},
};

void run_command(const std::string& line) {
    const size_t end = std::min(line.find(' '), line.size());
    const auto command = commands.find(line.substr(0, end));
    ASSERT_NE(command, commands.end()) << line;
    try {
        command->second(Arguments(line.substr(std::min(end + 1, line.size()))));
    } catch (const std::exception& error) {
        record(std::string("! ") + error.what());
    }
}

/** Runs what is due at an event. */
void run_scheduled(const std::string& event) {
    const auto [first, last] = schedule.equal_range(event);
    for (auto entry = first; entry != last; ++entry) {
        if (--entry->second.first == 0) {
            run_command(entry->second.second);
        }
    }
}

/** Fails with the first line that differs. */
void show_difference(const std::string& file, std::vector<std::string> wanted,
                     std::vector<std::string> written) {
    wanted.emplace_back("(end)");
    written.emplace_back("(end)");
    size_t line = 0;
    while (line + 1 < std::min(wanted.size(), written.size()) && wanted[line] == written[line]) {
        ++line;
    }
    ADD_FAILURE() << file << ":" << line + 1 << "\nexpected: " << wanted[line]
                  << "\nwritten:  " << written[line];
}

/** How many files the process has open. */
long count_open_files() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

class Daemon : public testing::TestWithParam<std::string> {
protected:
    Daemon() {
        device = Device();
        device.is_on = true;
        device.root = directory_.path();
        device.on_event = run_scheduled;
        device.put("/usr/lib/libad-agent-fwk.so");
        device.put("/tmp/vconf_ready");
        device.put("/opt/usr/lib/");
        device.put("/opt/media/Documents/");
        device.pointers = {
            {&device.node, "NODE"},
            {reinterpret_cast<void*>(CADAgentd::m_VConfTermChangeCB), "m_VConfTermChangeCB"},
            {reinterpret_cast<void*>(CADAgentd::m_VConfLanguageChangeCB),
             "m_VConfLanguageChangeCB"},
            {reinterpret_cast<void*>(CADAgentd::m_NetworkStateChangeCB), "m_NetworkStateChangeCB"},
            {reinterpret_cast<void*>(CADAgentd::m_NetWorkTypeChangeCB), "m_NetWorkTypeChangeCB"},
        };
        // A daemon that waits for a FIFO's other end waits for ever.
        alarm(60);
    }
    ~Daemon() override {
        controller.reset();
        libs.reset();
        schedule.clear();
        device.is_on = false;
        take_record();
        alarm(0);
    }

    test_support::TemporaryDirectory directory_;
};

TEST_P(Daemon, Follows) {
    const std::string file = TRANSCRIPTS + GetParam() + ".txt";
    const std::string wanted = test_support::read_file(file);
    std::string written;
    const long files_before = count_open_files();
    for (const std::string& line : test_support::split_lines(wanted)) {
        if (line.rfind("> ", 0) == 0) {
            run_command(line.substr(2));
            written += line + "\n" + take_record();
        } else if (line.rfind("< ", 0) == 0) {
            run_command(line.substr(2));
            take_record();
            written += line + "\n";
        } else if (line.empty() || line[0] == '#') {
            written += line + "\n";
        }
    }
    EXPECT_EQ(count_open_files(), files_before) << "files that were left open";
    if (rewrite_transcripts) {
        test_support::write_file(file, written);
    } else if (written != wanted) {
        show_difference(file, test_support::split_lines(wanted),
                        test_support::split_lines(written));
    }
}

std::vector<std::string> find_transcripts() {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(TRANSCRIPTS)) {
        names.push_back(entry.path().stem());
    }
    std::sort(names.begin(), names.end());
    return names;
}

INSTANTIATE_TEST_SUITE_P(, Daemon, testing::ValuesIn(find_transcripts()),
                         [](const auto& test) { return test.param; });

}  // namespace
}  // namespace daemon_tests

/** The program's own entry; the linker sends the start code here. */
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
extern "C" int __wrap_main(int count, char** arguments) {
    testing::InitGoogleTest(&count, arguments);
    daemon_tests::rewrite_transcripts =
        count > 1 && strcmp(arguments[1], "--rewrite-transcripts") == 0;
    return RUN_ALL_TESTS();
}
