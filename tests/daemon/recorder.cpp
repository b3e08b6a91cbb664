#include "recorder.h"

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <new>
#include <sstream>

#include <dlfcn.h>
#include <glib.h>
#include <unistd.h>

// The formats are the daemon's.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

void sig_quit(int signal_number);

namespace daemon_tests {

Device device;

namespace {

namespace fs = std::filesystem;

std::string lines;
/** What the next question for the thread id gets; too big for an int, and new each time. */
long next_thread_id = 0;
long files_before = 0;
/** What standard output is to get for the statement that has reached the platform log. */
std::string expected_output;

std::string formatted(const char* format, va_list arguments) {
    char* text = nullptr;
    if (vasprintf(&text, format, arguments) < 0) abort();
    const std::unique_ptr<char, void (*)(void*)> owner(text, free);
    return text;
}

void take_platform_line(int priority, const std::string& text) {
    char file[100];
    char function[100];
    int line = 0;
    ASSERT_EQ(sscanf(text.c_str(), "%99[^./].cpp: %99[^(](%d)", file, function, &line), 3) << text;
    const bool error = priority == 16;
    EXPECT_TRUE(error || priority == 2) << priority;
    const std::string colour = error ? "\x1b[31m" : "\x1b[0m";
    const std::string number = std::to_string(line);
    const std::string place = std::string(function) + "(" + number + ")";
    const std::string prefix = std::string(file) + ".cpp: " + place + " > " + colour + " [" +
                               function + ":" + number + "] [Thread Id:[" +
                               std::to_string(next_thread_id - 1) + "]] ";
    ASSERT_EQ(text.substr(0, prefix.size()), prefix);

    const std::string message = text.substr(prefix.size());
    const std::string unit = strcmp(file, "CADAgentd") == 0 ? "" : std::string(file) + ".";
    record(unit + function + (error ? " E " : " N ") + message);
    expected_output = colour + " [(Thread Id:" + std::to_string(next_thread_id) + "): " + place +
                      "] " + message + "\n";
}

/** Takes a statement's line on standard output; prints a text that is not one's. */
int take_output(const char* format, va_list arguments) {
    if (expected_output.empty()) return vprintf(format, arguments);
    EXPECT_EQ(formatted(format, arguments), std::exchange(expected_output, ""));
    return -1;
}

/** What the privileged tool would do, as far as the daemon looks at it again. */
void run_tool(const std::string& command) {
    std::istringstream words(command);
    std::string tool, verb, first, second;
    words >> tool >> verb >> first >> second;
    if (verb == "--mount") {
        if (!device.image_manifest.empty()) device.put("{img_xml}", device.image_manifest);
        device.put("{img_agent}", "new agent").put("{img_player}", "new player").put("{img_res}/");
    } else if (verb == "--umount") {
        device.remove("{mount_point}").put("{mount_point}/");
    } else if (verb == "--replaceimg") {
        device.image_manifest = "<Zel><Version>1.06</Version></Zel>";
    } else if (verb == "--copylib" && fs::exists(device.host_path(first))) {
        fs::copy_file(device.host_path(first), device.host_path(second),
                      fs::copy_options::overwrite_existing);
    } else if (first == "create_path_usr_lib") {
        device.put("{opt_lib}/");
    } else if (first == "create_path_apps_zeladagent") {
        device.put("{mount_point}/");
    } else if (first == "remove_usr_lib_path") {
        device.remove("{opt_lib}");
    }
}

int next_answer(std::deque<int>& answers) {
    if (answers.empty()) return 0;
    const int answer = answers.front();
    answers.pop_front();
    return answer;
}

/** How many files the process has open. */
long open_files() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

}  // namespace

std::string Device::host_path(const std::string& path) const { return root + expand(path); }

Device& Device::let(const std::string& name, const std::string& meaning) {
    names[name] = expand(meaning);
    return *this;
}

Device& Device::put(const std::string& path, const std::string& content) {
    fs::create_directories(fs::path(host_path(path)).parent_path());
    std::ofstream(host_path(path), std::ios::binary) << content;
    return *this;
}

Device& Device::remove(const std::string& path) {
    fs::remove_all(host_path(path));
    return *this;
}

Device& Device::fail(const std::string& text, int times) {
    answers[text].assign(times, 0x200);
    return *this;
}

void record(const std::string& line) {
    EXPECT_EQ(std::exchange(expected_output, ""), "") << "is not written";
    lines += "- ";
    for (const char c : line) lines += c == '\n' ? "\\n" : std::string(1, c);
    if (line.back() == ' ') lines.replace(lines.size() - 1, 1, "\\s");
    lines += "\n";
}

int call(const std::string& function, const std::string& arguments) {
    record(function + " " + arguments);
    return next_answer(device.answers[function]);
}

std::string transcript() { return std::exchange(lines, ""); }

DaemonTest::DaemonTest() {
    device = Device();
    device.root = (fs::temp_directory_path() / "daemon-test.XXXXXX").string();
    if (!mkdtemp(device.root.data())) abort();
    device.put("{firmware_agent}").put("{ready}").put("{opt_lib}/").put("/opt/media/Documents/");
    lines.clear();
    next_thread_id = 5000000000;
    files_before = open_files();
}

DaemonTest::~DaemonTest() {
    record("end");
    EXPECT_EQ(open_files(), files_before) << "files that were left open";
    fs::remove_all(device.root);
}

}  // namespace daemon_tests

using namespace daemon_tests;

// The linker sends the daemon's references to f to __wrap_f, and those to
// __real_f to the library's own f.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,cert-dcl50-cpp)
extern "C" {

int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...) {
    EXPECT_EQ(log_id, 0);
    EXPECT_STREQ(tag, "AD_DAEMON");
    va_list arguments;
    va_start(arguments, format);
    take_platform_line(priority, formatted(format, arguments));
    va_end(arguments);
    return -1;
}

#define OUTPUT_CALL(function, ...)                         \
    int function(__VA_ARGS__ const char* format, ...) {    \
        va_list arguments;                                 \
        va_start(arguments, format);                       \
        const int result = take_output(format, arguments); \
        va_end(arguments);                                 \
        return result;                                     \
    }
OUTPUT_CALL(__wrap_printf, )
OUTPUT_CALL(__wrap___printf_chk, int, )

long __wrap_syscall(long, ...) { return next_thread_id++; }

int __wrap_setvbuf(FILE* stream, char* buffer, int mode, size_t) {
    record(stream == stdout && !buffer && mode == _IOLBF ? "setvbuf stdout by lines" : "setvbuf");
    return 0;
}

int __wrap_system(const char* command) {
    record(std::string("sh ") + command);
    int status = 0;
    for (auto& [text, answers] : device.answers) {
        if (std::string(command).find(text) != std::string::npos) status |= next_answer(answers);
    }
    if (status == 0) run_tool(command);
    if (device.on_command) device.on_command();
    return status;
}

int __wrap_access(const char* path, int mode) {
    record(std::string("access ") + path + (mode == F_OK ? "" : " for more than existence"));
    return fs::exists(device.host_path(path)) ? 0 : -1;
}

int __wrap_usleep(useconds_t microseconds) {
    record("usleep " + std::to_string(microseconds));
    if (device.on_sleep) device.on_sleep();
    return 0;
}

sighandler_t __wrap_signal(int number, sighandler_t handler) {
    const char* name = handler == sig_quit ? " sig_quit" : " another";
    record("signal " + std::to_string(number) + (handler == SIG_DFL ? " default" : name));
    return SIG_DFL;
}

GMainLoop* __wrap_g_main_loop_new(GMainContext* context, gboolean is_running) {
    record(std::string("g_main_loop_new") + (context ? "" : " default") +
           (is_running ? " running" : ""));
    return device.loop_can_be_made ? reinterpret_cast<GMainLoop*>(&device) : nullptr;
}

void __wrap_g_main_loop_run(GMainLoop*) {
    record("g_main_loop_run");
    device.in_loop();
}

#define RECORDED(function, ...) \
    void __wrap_##function(__VA_ARGS__) { record(#function); }
RECORDED(g_type_init)
RECORDED(g_main_loop_quit, GMainLoop*)
RECORDED(g_main_loop_unref, GMainLoop*)

void* __real__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag);
void* __wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t& tag) {
    return device.memory_is_full ? nullptr : __real__ZnwmRKSt9nothrow_t(size, tag);
}

// Files are opened from inside libraries too, where the linker redirects
// nothing: there, a function of the program takes the place of the library's.
void* __real_dlsym(void* library, const char* symbol);

static FILE* open_in_device(const char* function, const std::string& path, const char* mode) {
    using Open = FILE* (*)(const char*, const char*);
    const auto open = reinterpret_cast<Open>(__real_dlsym(RTLD_NEXT, function));
    const bool inside = path.rfind("/opt/", 0) == 0 || path.rfind("/usr/bin/zels/", 0) == 0;
    if (!inside) return open(path.c_str(), mode);
    record("open " + path + " " + mode);
    return device.unreadable.count(path) != 0 ? nullptr
                                              : open(device.host_path(path).c_str(), mode);
}

FILE* fopen(const char* path, const char* mode) { return open_in_device("fopen", path, mode); }

FILE* fopen64(const char* path, const char* mode) { return open_in_device("fopen64", path, mode); }

/** The program's own entry; the daemon's is __real_main. */
int __wrap_main(int count, char** arguments) {
    testing::InitGoogleTest(&count, arguments);
    return RUN_ALL_TESTS();
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,cert-dcl50-cpp)
