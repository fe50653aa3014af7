#include "store/device_label.h"

namespace softkey
{

void updateDeviceLabel(Database& database, std::string_view label)
{
    Statement(database, "UPDATE device SET label = ?").bind(label).run();
}

} // namespace softkey
