// Older generations of the record. Not supported yet: they are refused.
#include "metadata/upgrade.h"

int km_meta_upgrade_size(const char*, km_meta*, uint64_t) { return -1; }

int km_meta_upgrade_kek(const char*, km_meta*) { return -1; }
