#include "strict/key_gate.h"

#include <algorithm>

namespace velkor::strict
{

void KeyGate::leaveQueue()
{
    queue_.pop_front();
    if (!queue_.empty())
        changed_.notify_all();
}

std::optional<KeyGate::Stay> KeyGate::enterAlone(std::chrono::milliseconds patience)
{
    std::unique_lock lock(mutex_);
    const unsigned long ticket = takeTicket();
    if (!changed_.wait_for(lock, patience, [&] { return isFirst(ticket) && !alone_ && guests_ == 0; })) {
        queue_.erase(std::find(queue_.begin(), queue_.end(), ticket));
        changed_.notify_all();
        return std::nullopt;
    }
    alone_ = true;
    leaveQueue();
    return std::optional<Stay>(std::in_place, *this, true);
}

KeyGate::Stay::~Stay()
{
    if (gate_ == nullptr)
        return;
    const std::scoped_lock lock(gate_->mutex_);
    if (alone_)
        gate_->alone_ = false;
    else
        --gate_->guests_;
    if (!gate_->queue_.empty())
        gate_->changed_.notify_all();
}

void KeyGate::Stay::admitOthers()
{
    const std::scoped_lock lock(gate_->mutex_);
    gate_->alone_ = false;
    ++gate_->guests_;
    alone_ = false;
    gate_->changed_.notify_all();
}

} // namespace velkor::strict
