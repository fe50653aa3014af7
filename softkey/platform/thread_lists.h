// The lists that operations answer by reference: one of each per thread, overwritten by the thread's next call and
// released when the thread ends.
#pragma once

#include "platform/table_memory.h"
#include "velkor/device_service.h"

#include <cstdint>
#include <vector>

namespace softkey
{

/// A list, and what it was filled from.
template <class Record>
class ThreadList
{
public:
    std::vector<Record>& records() { return records_; }

    /// Fills the list, unless it still is what that reading of a key's file has filled it with. One that the caller has
    /// made longer, shorter or moved is filled again. A record that the caller has written to stays like that until the
    /// key changes or the thread asks for the list of another one: to notice it, each call would compare all records.
    template <class Records>
    void fill(std::uint64_t reading, const Records& source)
    {
        if (reading == reading_ && records_.size() == source.size() && records_.data() == filled_)
            return;
        clear();
        if (records_.capacity() < source.size()) {
            records_.reserve(source.size());
            populateTableMemory(records_.data(), source.size() * sizeof(Record));
        }
        records_.assign(source.begin(), source.end());
        reading_ = reading;
        filled_ = records_.data();
    }

    void clear()
    {
        reading_ = 0;
        records_.clear();
    }

private:
    std::vector<Record> records_;
    std::uint64_t reading_ = 0;
    const Record* filled_ = nullptr;
};

struct ThreadLists {
    ThreadList<VelkorKeyPair> keyPairs;
    ThreadList<VelkorCertificate> certificates;
};
ThreadLists& threadLists();

} // namespace softkey
