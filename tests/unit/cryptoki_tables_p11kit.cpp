#include "cryptoki_tables.h"

#include <p11-kit/pkcs11.h>

#define CRYPTOKI_TABLES p11kitTables
#include "cryptoki_tables.inc"
