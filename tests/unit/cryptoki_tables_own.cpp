#include "cryptoki_tables.h"

#include "cryptoki.h"

#define CRYPTOKI_TABLES ownTables
#include "cryptoki_tables.inc"
