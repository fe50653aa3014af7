// A software key's file as somebody has damaged it: its header, its pages, the rows of its tables, and the journal
// beside it. Whatever it says, it is read or refused.
#include <algorithm>
#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>

#include <fuzzer/FuzzedDataProvider.h>

#include "base/patience.h"
#include "crypto/keys.h"
#include "expect.h"
#include "store/key_creation.h"
#include "store/schema.h"
#include "store/snapshot.h"
#include "store/soft_key.h"
#include "surroundings.h"

namespace
{

using namespace softkey;

constexpr const char* SERIAL = "FUZZ1";
constexpr const char* USER_PIN = "123456";
constexpr const char* OFFICER_PIN = "87654321";
/// A look at a busy file ends after so many milliseconds.
constexpr int PATIENCE = 20;
/// Dearer checks of a PIN only take time.
constexpr std::uint32_t DEAREST_CHECK = 8;

struct Original {
    std::filesystem::path path;
    ByteVector image;   ///< A whole key with a key pair and a certificate.
    ByteVector journal; ///< Beside it: what its pages held before a change.
};

void append(ByteVector& bytes, std::uint32_t number)
{
    for (unsigned shift = 32; shift != 0; shift -= 8)
        bytes.push_back(static_cast<unsigned char>(number >> (shift - 8)));
}

/// A journal that keeps every page of the file, in the form that SQLite documents.
ByteVector journalOf(Bytes image)
{
    constexpr std::size_t SECTOR_SIZE = 512;
    const std::size_t pageSize = std::size_t{image[16]} << 8 | image[17];
    const auto pages = static_cast<std::uint32_t>(image.size() / pageSize);
    ByteVector journal = {0xd9, 0xd5, 0x05, 0xf9, 0x20, 0xa1, 0x63, 0xd7};
    for (const std::size_t field : {std::size_t{pages}, std::size_t{0}, std::size_t{pages}, SECTOR_SIZE, pageSize})
        append(journal, static_cast<std::uint32_t>(field));
    journal.resize(SECTOR_SIZE);
    for (std::uint32_t page = 0; page < pages; ++page) {
        const Bytes content = image.subspan(page * pageSize, pageSize);
        std::uint32_t checksum = 0;
        for (std::size_t index = pageSize - 200; index < pageSize && index > 0; index -= 200)
            checksum += content[index];
        append(journal, page + 1);
        journal.insert(journal.end(), content.begin(), content.end());
        append(journal, checksum);
    }
    return journal;
}

ByteVector contentOf(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeFile(const std::filesystem::path& file, Bytes content)
{
    std::ofstream(file, std::ios::binary)
        .write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
}

Original makeOriginal()
{
    const std::filesystem::path folder = fuzz::prepareSurroundings();
    KeySettings settings;
    settings.serialNumber = SERIAL;
    settings.cost.logN = SCRYPT_LOG_N_MIN;
    createKeyFile(folder, settings, USER_PIN, OFFICER_PIN);
    Original original;
    original.path = folder / (SERIAL + std::string(KEY_FILE_SUFFIX));
    {
        SoftKey key(original.path);
        const EvpKey pair = generateKey(traitsOf(KEY_KIND_EC_P256));
        key.addKeyPair(USER_PIN, pair.get(), {{}, "pair"}, {USAGE_SIGN_VERIFY | USAGE_DECRYPT_ENCRYPT});
        VelkorCertificate certificate;
        certificate.der = {0x30, 0x03, 0x02, 0x01, 0x01};
        key.addCertificate(USER_PIN, certificate);
    }
    original.image = contentOf(original.path);
    original.journal = journalOf(original.image);
    return original;
}

const Original& original()
{
    static const Original& made = *new Original(makeOriginal());
    return made;
}

ByteVector patched(ByteVector bytes, FuzzedDataProvider& input)
{
    for (int patch = input.ConsumeIntegralInRange(0, 8); patch > 0; --patch) {
        const auto offset = input.ConsumeIntegralInRange<std::size_t>(0, bytes.size() - 1);
        const ByteVector fresh = input.ConsumeBytes<unsigned char>(input.ConsumeIntegralInRange<std::size_t>(1, 8));
        std::copy_n(fresh.begin(), std::min(fresh.size(), bytes.size() - offset),
                    bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    }
    if (input.ConsumeIntegralInRange(0, 7) == 1)
        bytes.resize(input.ConsumeIntegralInRange<std::size_t>(0, bytes.size()));
    return bytes;
}

void readAll(Database& database)
{
    layoutOf(database);
    lookAtRecords(database);
    readContents(database);
}

void readImage(ByteVector image)
{
    requireKeyFileHeader(Bytes(image));
    Database database(image);
    requireSoundStructure(database);
    readAll(database);
}

void readHeader(FuzzedDataProvider& input)
{
    const ByteVector header = input.ConsumeRemainingBytes<unsigned char>();
    requireKeyFileHeader(Bytes(header));
    changeCounterOf(header);
}

void readPages(FuzzedDataProvider& input)
{
    readImage(patched(original().image, input));
}

void readWithJournal(FuzzedDataProvider& input)
{
    ByteVector image = patched(original().image, input);
    putBack(image, patched(original().journal, input));
    readImage(std::move(image));
}

void readWithForeignJournal(FuzzedDataProvider& input)
{
    ByteVector image = original().image;
    putBack(image, input.ConsumeRemainingBytes<unsigned char>());
    readImage(std::move(image));
}

/// What its PINs open, where that is cheap to find out.
void useKey(const std::filesystem::path& path)
{
    SoftKey key(path);
    const std::shared_ptr<const Contents> contents = key.contents();
    const bool isCheap = contents->userPin.cost.logN <= DEAREST_CHECK && contents->userPin.cost.blockSize <= 8 &&
                         contents->userPin.cost.lanes <= 4;
    if (!isCheap)
        return;
    key.login(PinRole::User, USER_PIN);
    for (const VelkorKeyPair& pair : contents->keyPairs)
        key.privateKey(key.look(), std::to_array(pair.keyIdentifier), USER_PIN, 0);
}

std::filesystem::path journalBeside(std::filesystem::path file)
{
    return file += "-journal";
}

void openFile(FuzzedDataProvider& input)
{
    const std::filesystem::path& path = original().path;
    writeFile(path, patched(original().image, input));
    std::filesystem::remove(journalBeside(path));
    if (input.ConsumeBool())
        writeFile(journalBeside(path), patched(original().journal, input));
    useKey(path);
}

constexpr const char* UPDATES[] = {
    "UPDATE device SET serial_number = ?",
    "UPDATE device SET label = ?",
    "UPDATE device SET model = ?",
    "UPDATE device SET firmware_version = ?",
    "UPDATE device SET plugged = ?",
    "UPDATE device SET times_unplugged = ?",
    "UPDATE device SET authenticator = ?",
    "UPDATE pin SET changed = ?",
    "UPDATE pin SET tries_max = ?",
    "UPDATE pin SET tries_left = ?",
    "UPDATE pin SET scrypt_log_n = ?",
    "UPDATE pin SET scrypt_block_size = ?",
    "UPDATE pin SET scrypt_lanes = ?",
    "UPDATE pin SET salt = ?",
    "UPDATE pin SET wrapped_master_key = ?",
    "UPDATE pin SET checksum = ?",
    "UPDATE pin SET machine = ?",
    "UPDATE pin SET role = ? WHERE role = 2",
    "UPDATE key_pair SET id = ?",
    "UPDATE key_pair SET identifier = ?",
    "UPDATE key_pair SET kind = ?",
    "UPDATE key_pair SET object_id = ?",
    "UPDATE key_pair SET label = ?",
    "UPDATE key_pair SET public_key = ?",
    "UPDATE key_pair SET sealed_private_key = ?",
    "UPDATE key_pair SET usage_flags = ?",
    "UPDATE key_pair SET oaep_only = ?",
    "UPDATE certificate SET id = ?",
    "UPDATE certificate SET identifier = ?",
    "UPDATE certificate SET object_id = ?",
    "UPDATE certificate SET label = ?",
    "UPDATE certificate SET der = ?",
    "DELETE FROM device WHERE label <> ?",
    "DELETE FROM pin WHERE role <> ?",
};

/// Sets one field of a row to a value of the input; what SQLite refuses stays as it is.
void changeRow(const Database& database, FuzzedDataProvider& input)
{
    Statement change(database, UPDATES[input.ConsumeIntegralInRange<std::size_t>(0, std::size(UPDATES) - 1)]);
    const std::string text = input.ConsumeRandomLengthString(1100);
    switch (input.ConsumeIntegralInRange(0, 3)) {
    case 0:
        change.bind(input.ConsumeIntegral<std::int64_t>());
        break;
    case 1:
        change.bind(std::int64_t{input.ConsumeIntegralInRange(-1, 300)});
        break;
    case 2:
        change.bind(std::string_view(text));
        break;
    default:
        change.bind(Bytes(reinterpret_cast<const unsigned char*>(text.data()), text.size()));
        break;
    }
    try {
        change.run();
    } catch (const Refusal&) {
        return;
    }
}

void openFileWithRows(FuzzedDataProvider& input)
{
    const std::filesystem::path& path = original().path;
    writeFile(path, original().image);
    std::filesystem::remove(journalBeside(path));
    {
        Database database(path, Database::Mode::Existing);
        database.execute("PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF; PRAGMA ignore_check_constraints = ON;");
        for (int change = input.ConsumeIntegralInRange(1, 4); change > 0; --change)
            changeRow(database, input);
    }
    ByteVector image = contentOf(path);
    Database database(image);
    lookAtRecords(database);
    useKey(path);
}

constexpr void (*WAYS[])(FuzzedDataProvider&) = {readHeader, readPages,       readWithJournal, readWithForeignJournal,
                                                 openFile,   openFileWithRows};

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argumentCount*/, char*** /*arguments*/)
{
    fuzz::expect(startOpenSsl(), "OpenSSL starts");
    Patience::limit = PATIENCE;
    original();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size)
{
    FuzzedDataProvider input(bytes, size);
    const ErrorQueueGuard guard;
    try {
        WAYS[input.ConsumeIntegralInRange<std::size_t>(0, std::size(WAYS) - 1)](input);
    } catch (const Refusal&) {
        return 0;
    }
    return 0;
}
