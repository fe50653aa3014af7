// Keys that are of no use away from their machine: a secret of the machine goes into what a PIN opens. The file says
// which one, not what it is.
#pragma once

#include "base/bytes.h"
#include "base/secret.h"

namespace softkey
{

/// The mark of this machine's secret, which is made when there is none. Throws StorageFailed.
ByteVector bindToMachine();

/// What a PIN gives, and the machine's secret mixed into it. A key without a mark is taken as it is. Throws
/// OtherMachine when the mark is of a secret that is not here.
class MachineBinding
{
public:
    explicit MachineBinding(Bytes mark);
    SecretBuffer mixInto(SecretBuffer key) const;

private:
    SecretBuffer secret_;
};

} // namespace softkey
