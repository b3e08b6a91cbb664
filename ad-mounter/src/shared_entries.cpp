#include "shared_entries.h"

#include "pinned_path.h"

#include <climits>
#include <cstring>

#include <pthread.h>

namespace ad_mounter {

namespace {

class Sharing {
public:
    Sharing(int directory, EntryWork work, void* context)
        : directory_(directory), reader_(directory), work_(work), context_(context) {
        pthread_mutex_init(&lock_, nullptr);
    }
    ~Sharing() { pthread_mutex_destroy(&lock_); }
    Sharing(const Sharing&) = delete;
    Sharing& operator=(const Sharing&) = delete;

    void work_off(int worker) {
        char name[NAME_MAX + 1];
        DirectoryEntry entry = {name, DT_UNKNOWN};
        while (take(entry, name)) {
            const Outcome outcome = work_(context_, entry, worker);
            if (!outcome.ok()) {
                fail(outcome);
            }
        }
    }

    Outcome outcome() const { return outcome_; }

private:
    // The reader's own name lasts only until the other thread reads on.
    bool take(DirectoryEntry& entry, char* name) {
        pthread_mutex_lock(&lock_);
        DirectoryEntry next = {nullptr, DT_UNKNOWN};
        const bool taken = outcome_.ok() && reader_.next(next);
        if (taken) {
            strncpy(name, next.name, NAME_MAX);
            name[NAME_MAX] = '\0';
            entry.type = next.type;
        } else if (outcome_.ok() && reader_.error() != 0) {
            outcome_ = Outcome::failed("reading the directory", remember_path(directory_, "."),
                                       reader_.error());
        }
        pthread_mutex_unlock(&lock_);
        return taken;
    }

    void fail(const Outcome& outcome) {
        pthread_mutex_lock(&lock_);
        if (outcome_.ok()) {
            outcome_ = outcome;
        }
        pthread_mutex_unlock(&lock_);
    }

    int directory_;
    DirectoryReader reader_;
    EntryWork work_;
    void* context_;
    pthread_mutex_t lock_;
    Outcome outcome_;
};

void* work_as_second(void* sharing) {
    static_cast<Sharing*>(sharing)->work_off(1);
    return nullptr;
}

}  // namespace

Outcome share_entries(int directory, EntryWork work, void* context) {
    Sharing sharing(directory, work, context);
    pthread_t second;
    const bool shared = pthread_create(&second, nullptr, work_as_second, &sharing) == 0;
    sharing.work_off(0);
    if (shared) {
        pthread_join(second, nullptr);
    }
    return sharing.outcome();
}

}  // namespace ad_mounter
