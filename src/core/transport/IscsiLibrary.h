#pragma once

#include <memory>
#include <string>

struct iscsi_context;
struct scsi_task; // NOLINT(readability-identifier-naming): the name of the library

/// Owners of what libiscsi hands out. An empty one stands for a call that has failed.
namespace agent::core::iscsi {

struct DestroyContext {
    void operator()(iscsi_context* context) const noexcept;
};

struct FreeTask {
    void operator()(scsi_task* task) const noexcept;
};

using Context = std::unique_ptr<iscsi_context, DestroyContext>;
using Task = std::unique_ptr<scsi_task, FreeTask>;

/// Why the last call has failed. Some of the library's texts end with a newline, which is left out.
std::string errorOf(const Context& context);

/// Whether the target has done what it was asked.
bool isGood(const Task& task) noexcept;

} // namespace agent::core::iscsi
