#pragma once

#include <memory>
#include <string>

struct iscsi_context;
struct scsi_task; // NOLINT(readability-identifier-naming): the name of the library

/// The RAII owners of libiscsi's objects are Context and Task. An empty owner means that the call failed.
namespace agent::core::iscsi {

struct DestroyContext {
    void operator()(iscsi_context* context) const noexcept;
};

struct FreeTask {
    void operator()(scsi_task* task) const noexcept;
};

using Context = std::unique_ptr<iscsi_context, DestroyContext>;
using Task = std::unique_ptr<scsi_task, FreeTask>;

/// Why the last call failed. Removes the newline at the end of some of the library's texts.
std::string errorOf(const Context& context);

/// Whether the target has carried the command out.
bool isGood(const Task& task) noexcept;

} // namespace agent::core::iscsi
