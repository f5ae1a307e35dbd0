#pragma once

// The library's headers use types of these headers without including them.
#include <cstdint>
#include <ctime>
// A separate group, so that formatting keeps the order.
#include <iscsi/iscsi.h>
#include <iscsi/scsi-lowlevel.h>

// Some releases of the library define static_assert, a keyword of C++, as a macro of two arguments.
#undef static_assert
