#include "store/machine_binding.h"

#include "crypto/protection.h"
#include "platform/default_folder.h"
#include "platform/machine_secret.h"
#include "velkor/record_fields.h"

namespace softkey
{
namespace
{

constexpr std::size_t SECRET_SIZE = 32;
constexpr std::size_t MARK_SIZE = 16;

ByteVector markOf(Bytes secret)
{
    const SecretBuffer code = keyedCode(secret, "velkor-softkey machine");
    return {code.data(), code.data() + MARK_SIZE};
}

} // namespace

ByteVector bindToMachine()
{
    if (!readMachineSecret(SECRET_SIZE)) {
        SecretBuffer fresh(SECRET_SIZE);
        randomBytes({fresh.data(), fresh.size()});
        storeMachineSecret(fresh);
    }
    const std::optional<SecretBuffer> secret = readMachineSecret(SECRET_SIZE); // Perhaps another process's.
    if (!secret)
        throw Refusal(SoftkeyStatus::StorageFailed, "the machine's secret, " + machineSecretFile().string());
    return markOf(*secret);
}

MachineBinding::MachineBinding(Bytes mark)
{
    if (mark.empty())
        return;
    std::optional<SecretBuffer> secret = readMachineSecret(SECRET_SIZE);
    require(secret && velkor::sameBytes(markOf(*secret), mark), SoftkeyStatus::OtherMachine);
    secret_ = std::move(*secret);
}

SecretBuffer MachineBinding::mixInto(SecretBuffer key) const
{
    return secret_.size() == 0 ? std::move(key) : keyedCode(secret_, key);
}

} // namespace softkey
