#include "recorder.h"

#include "ADPaths.h"
#include "base/glib_owned.h"
#include "files.h"

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>

#include <dlfcn.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/stat.h>
#include <tinyxml.h>
#include <unistd.h>

// The formats are the daemon's.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

void sig_quit(int signal_number);

namespace daemon_tests {

Device device;

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

std::string transcript;
/** The next thread id: larger than an int holds, and another one on every call. */
long next_thread_id = 0;
/** The line that must follow on standard output, after the same statement's in the platform log. */
std::string expected_output;
std::set<int> open_fds;
/** What the daemon has opened last and not closed, or loaded and not deleted. */
FILE* open_stream = nullptr;
const void* loaded_document = nullptr;

std::string formatted(const char* format, va_list arguments) {
    char* text = nullptr;
    if (vasprintf(&text, format, arguments) < 0) {
        abort();
    }
    const std::unique_ptr<char, void (*)(void*)> owner(text, free);
    return text;
}

/** A line of one of the daemon's sources and the next one. */
std::string source_at(const std::string& file, size_t line) {
    const std::string directory = file == "ADUtils.cpp" ? "/common/src/" : "/ad-daemon/src/";
    std::vector<std::string> lines =
        test_support::split_lines(test_support::read_file(SOURCE_DIR + directory + file));
    lines.resize(lines.size() + line + 1);
    return lines[line - 1] + lines[line];
}

/** The text with the names of the pointers in it. */
std::string name_pointers(std::string text) {
    for (const auto& [pointer, pointer_name] : device.pointers) {
        std::ostringstream number;
        number << pointer;
        const size_t at = text.find(number.str());
        if (at != std::string::npos) {
            text.replace(at, number.str().size(), pointer_name);
        }
    }
    return text;
}

void take_platform_line(bool is_error, const char* format, const std::string& text) {
    const size_t file_end = std::min(text.find(": "), text.size());
    const size_t function_end = std::min(text.find('(', file_end), text.size() - 1);
    const std::string file = text.substr(0, file_end);
    const std::string function = text.substr(file_end + 2, function_end - file_end - 2);
    const long line = strtol(text.c_str() + function_end + 1, nullptr, 10);
    const std::string number = std::to_string(line);
    const std::string place = function + "(" + number + ")";
    const std::string colour = is_error ? "\x1b[31m" : "\x1b[0m";
    const std::string prefix = file + ": " + place + " > " + colour + " [" + function + ":" +
                               number + "] [Thread Id:[" + std::to_string(next_thread_id - 1) +
                               "]] ";
    ASSERT_EQ(text.substr(0, prefix.size()), prefix);
    const std::string message = text.substr(prefix.size());
    record((is_error ? "E " : "N ") + file + ":" + function + ": " + name_pointers(message));
    expected_output = colour + " [(Thread Id:" + std::to_string(next_thread_id) + "): " + place +
                      "] " + message + "\n";

    // The statement is on that line of the source.
    const std::string statement = source_at(file, line);
    const std::string message_format = strstr(format, "]] ") + 3;
    const std::string begin = message_format.substr(0, message_format.find_first_of("%\n\""));
    EXPECT_NE(statement.find(is_error ? "AD_LOG_ERR(" : "AD_LOG("), std::string::npos) << text;
    EXPECT_NE(statement.find("\"" + begin.substr(0, 25)), std::string::npos) << text;
}

/** Takes a statement's line on standard output; prints any other text. */
int take_output(const char* format, va_list arguments) {
    if (expected_output.empty()) {
        return vprintf(format, arguments);
    }
    EXPECT_EQ(formatted(format, arguments), std::exchange(expected_output, ""));
    return -1;
}

/** Does what the privileged tool would do, as far as the daemon looks at it again. */
void run_tool(const std::string& command) {
    std::istringstream words(command);
    std::string tool, verb, first, second;
    words >> tool >> verb >> first >> second;
    if (verb == "--mount") {
        if (!device.image_manifest.empty()) {
            device.put(AD_IMG_XML_FILE, device.image_manifest);
        }
        device.put(AD_IMG_LIB_FWK_FILE, "new agent");
        device.put(AD_IMG_LIB_PLAYER_FILE, "new player");
        device.put(AD_IMG_PLAYER_RES_PATH + "/"s);
    } else if (verb == "--umount") {
        device.remove(AD_IMG_MOUNT_PATH);
        device.put(AD_IMG_MOUNT_PATH + "/"s);
    } else if (verb == "--replaceimg") {
        device.image_manifest = "<Zel><Version>1.06</Version></Zel>";
    } else if (verb == "--copylib" && fs::is_regular_file(device.host_path(first))) {
        fs::copy_file(device.host_path(first), device.host_path(second),
                      fs::copy_options::overwrite_existing);
    } else if (first == "create_path_usr_lib") {
        device.put(AD_OPT_LIB_PATH + "/"s);
    } else if (first == "create_path_apps_zeladagent") {
        device.put(AD_IMG_MOUNT_PATH + "/"s);
    } else if (first == "remove_usr_lib_path") {
        device.remove(AD_OPT_LIB_PATH);
    }
}

int next_answer(std::deque<int>& answers) {
    if (answers.empty()) {
        return 0;
    }
    const int answer = answers.front();
    answers.pop_front();
    return answer;
}

}  // namespace

void Device::put(const std::string& path, const std::string& content) const {
    fs::create_directories(fs::path(host_path(path)).parent_path());
    if (path.back() != '/') {
        test_support::write_file(host_path(path), content);
    }
}

void Device::remove(const std::string& path) const { fs::remove_all(host_path(path)); }

void record(const std::string& line) {
    EXPECT_EQ(std::exchange(expected_output, ""), "") << "is not written";
    const base::Owned<char> escaped(g_strescape(line.c_str(), "\"\\"));
    transcript += escaped.get();
    if (transcript.back() == ' ') {
        transcript.replace(transcript.size() - 1, 1, "\\s");
    }
    transcript += "\n";
}

std::string take_record() {
    EXPECT_EQ(std::exchange(expected_output, ""), "") << "is not written";
    return std::exchange(transcript, "");
}

int call(const std::string& function, const std::string& arguments) {
    record(function + "(" + arguments + ")");
    if (device.throws.count(function) != 0) {
        throw std::runtime_error(function);
    }
    return next_answer(device.answers[function]);
}

std::string name(const void* pointer) {
    return pointer == nullptr ? "null" : device.pointers[pointer];
}

}  // namespace daemon_tests

using namespace daemon_tests;

// The linker redirects the daemon's references to f to __wrap_f, and those to
// __real_f to the library's own f.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,cert-dcl50-cpp,readability-identifier-naming)
extern "C" {

int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...) {
    EXPECT_EQ(log_id, 0);
    EXPECT_STREQ(tag, "AD_DAEMON");
    va_list arguments;
    va_start(arguments, format);
    EXPECT_TRUE(priority == 2 || priority == 16) << priority;
    take_platform_line(priority == 16, format, formatted(format, arguments));
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
    record(stream == stdout && !buffer && mode == _IOLBF ? "setvbuf(stdout, _IOLBF)" : "setvbuf");
    return 0;
}

int __wrap_system(const char* command) {
    record(std::string("system ") + command);
    int status = 0;
    for (auto& [text, answers] : device.answers) {
        if (std::string(command).find(text) != std::string::npos) {
            status |= next_answer(answers);
        }
    }
    if (status == 0) {
        run_tool(command);
    }
    device.on_event("command");
    return status;
}

int __wrap_access(const char* path, int mode) {
    record(std::string("access ") + path + (mode == F_OK ? "" : " for more than existence"));
    return fs::exists(device.host_path(path)) ? 0 : -1;
}

int __real_open(const char* path, int flags, ...);
int __wrap_open(const char* path, int flags, ...) {
    if (!device.is_on) {
        return __real_open(path, flags, 0666);
    }
    record(std::string("open ") + path);
    const int fd = device.unreadable.count(path) != 0
                       ? -1
                       : __real_open(device.host_path(path).c_str(), flags);
    open_fds.insert(fd);
    return fd;
}

int __real_close(int fd);
int __wrap_close(int fd) {
    if (open_fds.erase(fd) != 0) {
        record("close");
    }
    return __real_close(fd);
}

int __real_stat(const char* path, struct stat* status);
int __wrap_stat(const char* path, struct stat* status) {
    return __real_stat(device.is_on ? device.host_path(path).c_str() : path, status);
}

// The program's other files are written with these too.
FILE* __real_fopen(const char* path, const char* mode);
FILE* __wrap_fopen(const char* path, const char* mode) {
    if (strcmp(path, AD_FIRMWARE_VERSION_FILE) != 0) {
        return __real_fopen(path, mode);
    }
    record(std::string("fopen ") + path + " " + mode);
    return open_stream = __real_fopen(device.host_path(path).c_str(), mode);
}

size_t __real_fwrite(const void* data, size_t size, size_t count, FILE* file);
size_t __wrap_fwrite(const void* data, size_t size, size_t count, FILE* file) {
    if (file == open_stream) {
        record("fwrite " + std::to_string(size) + " * " + std::to_string(count));
    }
    return __real_fwrite(data, size, count, file);
}

int __real_fclose(FILE* file);
int __wrap_fclose(FILE* file) {
    if (file == open_stream) {
        record("fclose");
        open_stream = nullptr;
    }
    return __real_fclose(file);
}

void __real_free(void* memory);
void __wrap_free(void* memory) {
    if (memory != nullptr && memory == device.firmware_version) {
        record("free");
        device.firmware_version = nullptr;
    }
    __real_free(memory);
}

bool __real__ZN13TiXmlDocument8LoadFileEP8_IO_FILE13TiXmlEncoding(TiXmlDocument*, FILE*, int);
bool __wrap__ZN13TiXmlDocument8LoadFileEP8_IO_FILE13TiXmlEncoding(TiXmlDocument* document,
                                                                  FILE* file, int encoding) {
    record("LoadFile");
    loaded_document = document;
    open_stream = file;
    const bool is_loaded =
        __real__ZN13TiXmlDocument8LoadFileEP8_IO_FILE13TiXmlEncoding(document, file, encoding);
    if (device.throws.count("LoadFile") != 0) {
        throw std::bad_alloc();
    }
    return is_loaded;
}

int __wrap_usleep(useconds_t microseconds) {
    record("usleep " + std::to_string(microseconds));
    device.on_event("sleep");
    return 0;
}

sighandler_t __wrap_signal(int number, sighandler_t handler) {
    const char* name = handler == sig_quit ? " sig_quit" : " another";
    record("signal " + std::to_string(number) + (handler == SIG_DFL ? " SIG_DFL" : name));
    return SIG_DFL;
}

GMainLoop* __wrap_g_main_loop_new(GMainContext* context, gboolean is_running) {
    record(std::string("g_main_loop_new") + (context ? "" : " default") +
           (is_running ? " running" : ""));
    return device.has_loop ? reinterpret_cast<GMainLoop*>(&device) : nullptr;
}

void __wrap_g_main_loop_run(GMainLoop*) {
    record("g_main_loop_run");
    device.on_event("loop");
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

void* __real_dlsym(void* library, const char* symbol);
}

// In place of the library's, so that TinyXML calls it as well.
// NOLINTNEXTLINE(cert-dcl54-cpp,misc-new-delete-overloads)
void operator delete(void* memory) noexcept {
    using Delete = void (*)(void*);
    static const auto real_delete = reinterpret_cast<Delete>(__real_dlsym(RTLD_NEXT, "_ZdlPv"));
    if (memory != nullptr && memory == loaded_document) {
        record("delete document");
        loaded_document = nullptr;
    }
    real_delete(memory);
}

void operator delete(void* memory, size_t) noexcept { operator delete(memory); }
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,cert-dcl50-cpp,readability-identifier-naming)
