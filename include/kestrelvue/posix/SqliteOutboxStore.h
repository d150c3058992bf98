#pragma once
// The outbox store on SQLite: DIR/outbox.sqlite, in WAL mode with synchronous=NORMAL (a commit
// survives the application being killed; a power cut may lose the last commits). A file that is
// not this store's (damaged, foreign, of another version) is renamed aside to
// outbox.sqlite.damaged-<seconds> and a fresh store is made; openingReport() says so.

#include <kestrelvue/Export.h>
#include <kestrelvue/platform/OutboxStore.h>

#include <memory>
#include <string>

namespace kestrelvue::posix {

class KESTRELVUE_EXPORT SqliteOutboxStore final : public platform::OutboxStore {
public:
    explicit SqliteOutboxStore(const std::string& directory);
    ~SqliteOutboxStore() override;
    SqliteOutboxStore(const SqliteOutboxStore&) = delete;
    SqliteOutboxStore& operator=(const SqliteOutboxStore&) = delete;

    bool add(std::vector<platform::OutboxEntry>& entries) override;
    bool remove(std::int64_t id) override;
    std::vector<platform::OutboxEntry> load() override;
    std::string openingReport() const override;

    /// What the store in `directory` holds, read through a read-only connection: nothing is
    /// written, made or set aside, so it may be asked while an outbox has the store open. Each
    /// entry's id, kind and records; its url and body are left empty. Empty when there is no
    /// store there or it cannot be read as one.
    static std::vector<platform::OutboxEntry> peek(const std::string& directory);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kestrelvue::posix
