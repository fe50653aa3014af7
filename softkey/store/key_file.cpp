#include "store/key_file.h"

#include "platform/fork_guard.h"
#include "store/schema.h"
#include "store/snapshot.h"

namespace softkey
{

KeyFile::KeyFile(const std::filesystem::path& path) : path_(path), database_(path, Database::Mode::Existing)
{
    requireKeyFileHeader(database_);
}

KeyFile::~KeyFile()
{
    const ForkSafeSection section;
    const Database closing = std::move(database_);
}

std::shared_ptr<const Contents> KeyFile::lastContents() const
{
    const std::lock_guard lock(contentsMutex_);
    return contents_;
}

std::shared_ptr<const Contents> KeyFile::contents()
{
    if (std::shared_ptr<const Contents> known = lastContents();
        known && known->changeCounter == changeCounter(database_))
        return known;
    return readAnew();
}

void KeyFile::reload()
{
    verifyNow();
}

void KeyFile::configure()
{
    if (!configured_)
        configureConnection(database_);
    configured_ = true;
}

void KeyFile::verify()
{
    if (!verified_)
        verifyNow();
}

void KeyFile::verifyNow()
{
    std::int64_t layout = 0;
    read([&](Database& database) {
        requireSoundStructure(database);
        layout = layoutOf(database);
        if (layout == SCHEMA_VERSION)
            requireOwnContents(database);
    });
    if (layout < SCHEMA_VERSION) {
        const Turn turn(*this);
        const ForkSafeSection section;
        const std::lock_guard lock(connectionMutex_);
        configure();
        migrate(database_, [this](Database& database) { requireOwnContents(database); });
    }
    verified_ = true;
}

Contents KeyFile::requireOwnContents(Database& database) const
{
    Contents fresh = readContents(database);
    // A copy under another name would be a second device with the same serial number.
    require(fresh.device.serialNumber == path_.stem(), SoftkeyStatus::FileForeign);
    return fresh;
}

std::shared_ptr<const Contents> KeyFile::readAnew()
{
    verify();
    const ForkSafeSection section;
    const std::lock_guard reading(readingMutex_);
    std::shared_ptr<const Contents> known = lastContents();
    Snapshot snapshot(database_, path_);
    if (known && known->changeCounter == snapshot.changeCounter())
        return known; // A change is under way, or another thread was faster.
    requirePresentLayout(snapshot.database());
    auto fresh = std::make_shared<Contents>(requireOwnContents(snapshot.database()));
    fresh->changeCounter = snapshot.changeCounter();
    const std::lock_guard lock(contentsMutex_);
    contents_ = std::move(fresh);
    return contents_;
}

void KeyFile::read(const std::function<void(Database&)>& work)
{
    const ForkSafeSection section;
    Snapshot snapshot(database_, path_);
    work(snapshot.database());
}

KeyFile::Turn::Turn(KeyFile& file) : threads_(file.turnMutex_), processes_(queueForTurn(file)) {}

FileLock KeyFile::Turn::queueForTurn(KeyFile& file)
{
    // The others get on as long as the file changes.
    const auto progress = [&file] { return changeCounter(file.database_); };
    const FileLock next(queueOfKey(file.path_), Patience(progress));
    constexpr std::chrono::microseconds WHEN_NEXT{500};
    return {lockOfKey(file.path_), Patience(progress, WHEN_NEXT)};
}

void KeyFile::transact(const Turn&, const std::function<void(Database&)>& work)
{
    const ForkSafeSection section;
    const std::lock_guard lock(connectionMutex_);
    requireKeyFileHeader(database_); // Before SQLite acts on what a newer version may have written.
    configure();
    Transaction transaction(database_);
    requirePresentLayout(database_);
    // A file that was taken away would swallow the change.
    require(!wasReplaced(), SoftkeyStatus::DeviceRemoved);
    work(database_);
    transaction.commit();
}

void KeyFile::change(const std::function<void(Database&)>& work)
{
    verify(); // Before the turn, which bringing an older layout up to date needs, too.
    change(Turn(*this), work);
}

void KeyFile::change(const Turn& turn, const std::function<void(Database&)>& work)
{
    transact(turn, [&](Database& database) {
        require(database.number("SELECT plugged FROM device") == 1, SoftkeyStatus::DeviceRemoved);
        work(database);
    });
}

void KeyFile::setPlugged(bool plugged)
{
    verify();
    transact(Turn(*this), [&](Database& database) {
        database.execute(plugged ? "UPDATE device SET plugged = 1"
                                 : "UPDATE device SET plugged = 0, times_unplugged = times_unplugged + 1");
    });
}

} // namespace softkey
