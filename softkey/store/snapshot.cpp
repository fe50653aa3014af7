#include "store/snapshot.h"

#include "base/patience.h"
#include "platform/draft.h"
#include "platform/file_lock.h"
#include "platform/table_memory.h"
#include "store/schema.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <functional>
#include <optional>
#include <string_view>

namespace softkey
{
namespace
{

// Fields of the header of a rollback journal, as SQLite documents its file format. A journal is one or several
// segments, each a header that fills a sector, then records: page number, page, checksum.
constexpr std::array<unsigned char, 8> JOURNAL_MAGIC{0xd9, 0xd5, 0x05, 0xf9, 0x20, 0xa1, 0x63, 0xd7};
constexpr std::size_t RECORDS_OFFSET = 8;
constexpr std::size_t NONCE_OFFSET = 12;
constexpr std::size_t PAGES_OFFSET = 16;
constexpr std::size_t SECTOR_SIZE_OFFSET = 20;
constexpr std::size_t PAGE_SIZE_OFFSET = 24;
constexpr std::size_t JOURNAL_HEADER_SIZE = 28;
constexpr std::uint32_t AS_MANY_AS_FIT = 0xffffffff;

constexpr std::size_t SECTOR_SIZE_MAX = 0x10000;
constexpr std::size_t PAGE_SIZE_MIN = 512;
constexpr std::size_t PAGE_SIZE_MAX = 0x10000;
constexpr std::size_t CHECKSUM_STEP = 200;
constexpr int ATTEMPTS_AT_ONCE = 10;
constexpr int ATTEMPTS_ALONE = 14; ///< About 20 ms, with the pauses between them.

bool isPowerOfTwo(std::size_t number)
{
    return number != 0 && (number & (number - 1)) == 0;
}

/// One segment of a journal.
struct Segment {
    std::size_t records = 0;
    std::uint32_t nonce = 0;
    std::size_t pagesBefore = 0; ///< Pages that the file had when the change began.
    std::size_t sectorSize = 0;
    std::size_t pageSize = 0;

    std::size_t recordSize() const { return 4 + pageSize + 4; }
};

/// Nothing when no segment begins there.
std::optional<Segment> segmentAt(Bytes journal, std::size_t offset)
{
    if (offset > journal.size() || journal.size() - offset < JOURNAL_HEADER_SIZE)
        return std::nullopt;
    const Bytes header = journal.subspan(offset, JOURNAL_HEADER_SIZE);
    if (!std::ranges::equal(header.first(JOURNAL_MAGIC.size()), JOURNAL_MAGIC))
        return std::nullopt;
    Segment segment;
    segment.records = bigEndian(header.subspan(RECORDS_OFFSET));
    segment.nonce = bigEndian(header.subspan(NONCE_OFFSET));
    segment.pagesBefore = bigEndian(header.subspan(PAGES_OFFSET));
    segment.sectorSize = bigEndian(header.subspan(SECTOR_SIZE_OFFSET));
    segment.pageSize = bigEndian(header.subspan(PAGE_SIZE_OFFSET));
    const bool sound = isPowerOfTwo(segment.sectorSize) && segment.sectorSize <= SECTOR_SIZE_MAX &&
                       isPowerOfTwo(segment.pageSize) && segment.pageSize >= PAGE_SIZE_MIN &&
                       segment.pageSize <= PAGE_SIZE_MAX;
    if (!sound)
        return std::nullopt;
    if (segment.records == AS_MANY_AS_FIT) {
        const std::size_t end = std::min(journal.size(), offset + segment.sectorSize);
        segment.records = (journal.size() - end) / segment.recordSize();
    }
    return segment;
}

std::uint32_t checksumOf(Bytes page, std::uint32_t nonce)
{
    std::uint32_t sum = nonce;
    for (std::size_t i = page.size() - CHECKSUM_STEP; i > 0 && i < page.size(); i -= CHECKSUM_STEP)
        sum += page[i];
    return sum;
}

/// What is done with the number of a page, and with what it held.
using PageVisit = std::function<void(std::size_t, Bytes, const Segment&)>;

/// False for a record that was never written to its end.
bool visitPage(Bytes record, const Segment& segment, const PageVisit& visit)
{
    const std::size_t number = bigEndian(record);
    const Bytes page = record.subspan(4, segment.pageSize);
    if (number == 0 || bigEndian(record.subspan(4 + segment.pageSize)) != checksumOf(page, segment.nonce))
        return false;
    visit(number, page, segment);
    return true;
}

/// All pages that a journal has kept.
void visitPages(Bytes journal, const PageVisit& visit)
{
    std::size_t offset = 0;
    for (std::optional<Segment> segment = segmentAt(journal, 0); segment && segment->records > 0;
         segment = segmentAt(journal, offset)) {
        offset += segment->sectorSize;
        for (std::size_t i = 0; i < segment->records; ++i, offset += segment->recordSize()) {
            const bool complete = offset <= journal.size() && journal.size() - offset >= segment->recordSize();
            if (!complete || !visitPage(journal.subspan(offset, segment->recordSize()), *segment, visit))
                return;
        }
        offset = (offset + segment->sectorSize - 1) / segment->sectorSize * segment->sectorSize;
    }
}

ByteVector contentOf(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary | std::ios::ate);
    if (!in)
        return {}; // There is none, or none that anybody could put back.
    ByteVector content(static_cast<std::size_t>(std::max<std::streamoff>(in.tellg(), 0)));
    in.seekg(0);
    in.read(reinterpret_cast<char*>(content.data()), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<std::size_t>(in.gcount()));
    return content;
}

std::filesystem::file_time_type timeOf(const std::filesystem::path& file)
{
    std::error_code failure;
    return std::filesystem::last_write_time(file, failure);
}

/// What changes when somebody is at work in the file. The counter is read first: it is in the first page, which is the
/// first to be written, so that who sees it as it was has seen no page of a change that began after the journal was
/// looked at.
struct Moment {
    std::uint32_t counter;
    ByteVector journal;
    std::filesystem::file_time_type fileTime;
    std::filesystem::file_time_type journalTime;

    bool operator==(const Moment&) const = default;
};

Moment momentOf(const Database& file, const std::filesystem::path& path)
{
    return {softkey::changeCounter(file), contentOf(file.journal()), timeOf(path), timeOf(file.journal())};
}

/// Unless somebody stands there, or there can be no such file.
void joinQueue(std::optional<FileLock>& queue, const std::filesystem::path& path)
{
    try {
        if (std::optional<FileLock> taken = FileLock::tryTake(queueOfKey(path)))
            queue.emplace(std::move(*taken));
    } catch (const Refusal&) {
        return; // Whoever cannot make it reads as before.
    }
}

/// With room for the margin of a database.
ByteVector zeros(std::size_t size)
{
    ByteVector image;
    image.reserve(size + Database::IMAGE_MARGIN);
    populateTableMemory(image.data(), size);
    image.resize(size);
    return image;
}

/// The file is read between two looks at its journal: when these are alike, all that was written to the file by then
/// is in the journal that was read. Where changes follow each other too closely for that, the reader becomes the next
/// in the queue of those who change the file: after the change that is under way it stands still.
ByteVector imageOf(const Database& file, const std::filesystem::path& path)
{
    Patience patience;
    std::optional<FileLock> queue;
    for (int attempt = 1;; ++attempt) {
        requireKeyFileHeader(file);
        const Moment before = momentOf(file, path);
        ByteVector image = zeros(file.rawSize());
        const bool complete = file.readRaw(image, 0);
        if (complete && momentOf(file, path) == before) {
            putBack(image, before.journal);
            requireKeyFileHeader(Bytes(image));
            return image;
        }
        if (attempt >= ATTEMPTS_AT_ONCE)
            patience.pause();
        if (attempt >= ATTEMPTS_ALONE && !queue)
            joinQueue(queue, path);
    }
}

} // namespace

void putBack(ByteVector& image, Bytes journal)
{
    const std::optional<Segment> first = segmentAt(journal, 0);
    if (!first || first->records == 0)
        return; // What is in an unfinished journal is in the file, too.
    // What the file has lost since is in the journal.
    const std::size_t sizeBefore = first->pagesBefore * first->pageSize;
    require(sizeBefore <= image.size() + journal.size(), SoftkeyStatus::FileDamaged);
    image.resize(sizeBefore);
    visitPages(journal, [&](std::size_t number, Bytes page, const Segment& segment) {
        const std::size_t offset = (number - 1) * segment.pageSize;
        if (number <= segment.pagesBefore && offset + segment.pageSize <= image.size())
            std::ranges::copy(page, image.begin() + static_cast<std::ptrdiff_t>(offset));
    });
}

std::optional<std::uint32_t> changeCounterBefore(const Database& file)
{
    std::optional<std::uint32_t> counter;
    visitPages(contentOf(file.journal()), [&](std::size_t number, Bytes page, const Segment&) {
        if (number == 1)
            counter = changeCounterOf(page);
    });
    return counter;
}

Snapshot::Snapshot(const Database& file, const std::filesystem::path& path)
    : image_(imageOf(file, path)), changeCounter_(changeCounterOf(image_)), database_(image_)
{
}

} // namespace softkey
