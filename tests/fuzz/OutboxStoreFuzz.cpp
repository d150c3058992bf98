// The outbox store's reader: whatever bytes lie in the store's file (damaged, foreign, cut
// short), opening gives a usable store or sets the file aside, never a crash, and what it loads
// can be removed.
#include <kestrelvue/posix/SqliteOutboxStore.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    namespace fs = std::filesystem;
    // Memory-backed when the system has it: SQLite syncs the file on every close.
    static const fs::path dir = [] {
        const fs::path base = fs::is_directory("/dev/shm") ? "/dev/shm" : fs::temp_directory_path();
        return base / ("kv-outbox-fuzz-" + std::to_string(::getpid()));
    }();
    fs::remove_all(dir);
    fs::create_directories(dir);
    std::ofstream(dir / "outbox.sqlite", std::ios::binary)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    {
        kestrelvue::posix::SqliteOutboxStore store(dir.string());
        for (const auto& entry : store.load()) {
            if (entry.id <= 0) __builtin_trap();
            store.remove(entry.id);
        }
        std::vector<kestrelvue::platform::OutboxEntry> more{{}};
        store.add(more);
    }
    fs::remove_all(dir);
    return 0;
}
