#pragma once

// The library's headers need the types of those above them, and use them without including them.
#include <cstdint>
#include <ctime>
// Kept apart, for that order.
#include <iscsi/iscsi.h>
#include <iscsi/scsi-lowlevel.h>

// Some releases of the library make the language's own keyword a macro of two arguments.
#undef static_assert
