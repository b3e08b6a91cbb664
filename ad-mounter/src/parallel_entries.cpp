#include "parallel_entries.h"

#include <climits>
#include <cstddef>
#include <cstring>

#include <pthread.h>

namespace ad_mounter {

namespace {

// The default would be the limit that the process was started with.
constexpr size_t worker_stack_size = size_t{4} << 20;

// A directory that several workers take entries from. pthread rather than std::thread: the
// latter throws where no thread can be started.
class SharedDirectory {
public:
    SharedDirectory(int directory, EntryFunction function, void* context)
        : directory_(directory), reader_(directory), function_(function), context_(context) {
        pthread_mutex_init(&mutex_, nullptr);
    }
    ~SharedDirectory() { pthread_mutex_destroy(&mutex_); }
    SharedDirectory(const SharedDirectory&) = delete;
    SharedDirectory& operator=(const SharedDirectory&) = delete;

    void run_worker(int worker) {
        char name[NAME_MAX + 1];
        DirectoryEntry entry = {name, DT_UNKNOWN};
        while (take_entry(entry, name)) {
            const Outcome outcome = function_(context_, entry, worker);
            if (!outcome.ok()) {
                record_failure(outcome);
            }
        }
    }

    Outcome outcome() const { return outcome_; }

private:
    // Copies the name, since the reader's is overwritten when the other worker reads on.
    bool take_entry(DirectoryEntry& entry, char* name) {
        pthread_mutex_lock(&mutex_);
        DirectoryEntry next = {nullptr, DT_UNKNOWN};
        const bool taken = outcome_.ok() && reader_.next(next);
        if (taken) {
            strncpy(name, next.name, NAME_MAX);
            name[NAME_MAX] = '\0';
            entry.type = next.type;
        } else if (outcome_.ok() && reader_.error() != 0) {
            outcome_ = Outcome::entry_failed("read directory", directory_, ".", reader_.error());
        }
        pthread_mutex_unlock(&mutex_);
        return taken;
    }

    void record_failure(const Outcome& outcome) {
        pthread_mutex_lock(&mutex_);
        if (outcome_.ok()) {
            outcome_ = outcome;
        }
        pthread_mutex_unlock(&mutex_);
    }

    int directory_;
    DirectoryReader reader_;
    EntryFunction function_;
    void* context_;
    pthread_mutex_t mutex_;
    Outcome outcome_;
};

void* run_second_worker(void* directory) {
    static_cast<SharedDirectory*>(directory)->run_worker(1);
    return nullptr;
}

}  // namespace

Outcome for_each_entry_parallel(int directory, EntryFunction function, void* context) {
    SharedDirectory shared(directory, function, context);
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, worker_stack_size);
    pthread_t second;
    const bool started = pthread_create(&second, &attributes, run_second_worker, &shared) == 0;
    pthread_attr_destroy(&attributes);
    shared.run_worker(0);
    if (started) {
        pthread_join(second, nullptr);
    }
    return shared.outcome();
}

}  // namespace ad_mounter
