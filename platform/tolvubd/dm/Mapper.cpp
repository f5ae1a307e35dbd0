#include "dm/Mapper.h"

#include "Failure.h"
#include "dm/UdevFlags.h"

#include <chrono>
#include <libdevmapper.h>
#include <memory>
#include <sys/sysmacros.h>
#include <thread>
#include <unistd.h>

namespace tolvubd::dm {

namespace {

constexpr std::chrono::seconds removalPatience{10};
constexpr std::chrono::milliseconds removalPause{50};
constexpr const char* controlNode = "/dev/mapper/control";

/// Discards the library's messages, because the exceptions contain all necessary information.
void discardMessage(int /*level*/, const char* /*file*/, int /*line*/, int /*errorOrClass*/,
                    const char* /*format*/, ...) {}

/// Doesn't wait for udev, because the caller may be run by udev. Uses the names as the kernel has them.
void prepareLibrary() {
    dm_log_with_errno_init(discardMessage);
    dm_udev_set_sync_support(0);
    dm_set_name_mangling_mode(DM_STRING_MANGLING_NONE);
}

/// One request to the kernel. The library keeps a descriptor open, which programs that the caller starts
/// would inherit, so the destructor has the library close it.
class Task {
public:
    Task(int type, const std::string& what) : what(what) {
        prepareLibrary();
        // If the control node is missing, the library would create it, and other nodes too.
        if (::access(controlNode, F_OK) == 0) {
            task.reset(dm_task_create(type));
        }
        if (!task) {
            fail(ENODEV, what);
        }
    }
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;
    ~Task() {
        task.reset();
        dm_lib_release();
    }

    void check(int success) const {
        if (success == 0) {
            fail(ENOMEM, what);
        }
    }
    void tellUdev(Visibility visibility) const {
        std::uint32_t cookie = 0;
        check(dm_task_set_cookie(get(), &cookie, udevFlags(visibility)));
    }
    /// Throws ENODEV when no ioctl was made, because there is no device-mapper.
    void run() {
        if (dm_task_run(get()) == 0) {
            const int error = dm_task_get_errno(get());
            fail(error != 0 ? error : ENODEV, what);
        }
    }
    /// Throws ENXIO when there is no such device: not every library call reports that as a failure.
    [[nodiscard]] dm_info info() const {
        dm_info found{};
        check(dm_task_get_info(get(), &found));
        if (found.exists == 0) {
            fail(ENXIO, what);
        }
        return found;
    }
    [[nodiscard]] dm_task* get() const { return task.get(); }

private:
    struct Destroy {
        void operator()(dm_task* task) const { dm_task_destroy(task); }
    };

    std::string what;
    std::unique_ptr<dm_task, Destroy> task;
};

/// Selects a device by its UUID, which stays the same when the device is renamed, and is never reused.
void choose(Task& task, const Device& device) {
    if (device.uuid.empty()) {
        task.check(dm_task_set_major_minor(task.get(), static_cast<int>(major(device.number)),
                                           static_cast<int>(minor(device.number)), 0));
    } else {
        task.check(dm_task_set_uuid(task.get(), device.uuid.c_str()));
    }
}

Task taskOn(const Device& device, int type, const std::string& verb) {
    return {type, verb + " the device " + device.name};
}

void call(const Device& device, int type, const std::string& verb) {
    Task task = taskOn(device, type, verb);
    choose(task, device);
    task.run();
    (void)task.info();
}

bool meansNone(const std::system_error& error) {
    return error.code().value() == ENXIO || error.code().value() == ENODEV;
}

/// `key` has either a UUID or a number.
std::optional<Device> find(const Device& key) {
    try {
        Task task = taskOn(key, DM_DEVICE_INFO, "find");
        choose(task, key);
        task.run();
        const dm_info info = task.info();
        return Device{dm_task_get_name(task.get()), dm_task_get_uuid(task.get()),
                      makedev(info.major, info.minor)};
    } catch (const std::system_error& error) {
        if (!meansNone(error)) {
            throw;
        }
        return std::nullopt;
    }
}

Targets targetsOf(const Device& device, int type, const std::string& verb) {
    Task task = taskOn(device, type, verb);
    choose(task, device);
    // Without the flag, reading the status would flush the targets, which waits while a volume is suspended.
    task.check(dm_task_no_flush(task.get()));
    task.run();
    if (task.info().live_table == 0) {
        return {};
    }
    Targets targets;
    void* next = nullptr;
    do {
        Target target;
        char* name = nullptr;
        char* parameters = nullptr;
        next = dm_get_next_target(task.get(), next, &target.start, &target.length, &name, &parameters);
        if (name != nullptr) {
            target.type = name;
            target.parameters = parameters != nullptr ? parameters : "";
            targets.push_back(target);
        }
    } while (next != nullptr);
    return targets;
}

std::vector<dev_t> numbersIn(const dm_names* entry) {
    std::vector<dev_t> numbers;
    while (entry != nullptr && entry->dev != 0) {
        numbers.push_back(entry->dev);
        const auto* bytes = static_cast<const char*>(static_cast<const void*>(entry));
        entry = entry->next != 0 ? static_cast<const dm_names*>(static_cast<const void*>(bytes + entry->next))
                                 : nullptr;
    }
    return numbers;
}

std::vector<dev_t> listDevices() {
    try {
        Task task(DM_DEVICE_LIST, "list the devices");
        task.run();
        return numbersIn(dm_task_get_names(task.get()));
    } catch (const std::system_error& error) {
        if (!meansNone(error)) {
            throw;
        }
        return {};
    }
}

void removeOnce(const Device& device) {
    Task task = taskOn(device, DM_DEVICE_REMOVE, "remove");
    choose(task, device);
    task.tellUdev(Visibility::hidden);
    task.run();
}

} // namespace

std::optional<Device> findByNumber(dev_t number) {
    return find({"of that number", {}, number});
}

std::optional<Device> findByUuid(const std::string& uuid) {
    return find({uuid, uuid, 0});
}

std::vector<Device> findByPrefix(const std::string& prefix) {
    std::vector<Device> found;
    for (const dev_t number : listDevices()) {
        if (const auto device = findByNumber(number); device && device->uuid.starts_with(prefix)) {
            found.push_back(*device);
        }
    }
    return found;
}

State stateOf(const Device& device) {
    Task task = taskOn(device, DM_DEVICE_INFO, "look at");
    choose(task, device);
    task.run();
    const dm_info info = task.info();
    return {info.suspended != 0, info.live_table != 0, info.inactive_table != 0,
            static_cast<std::uint32_t>(info.open_count)};
}

Targets liveTable(const Device& device) {
    return targetsOf(device, DM_DEVICE_TABLE, "read the table of");
}

Targets liveStatus(const Device& device) {
    return targetsOf(device, DM_DEVICE_STATUS, "read the status of");
}

std::uint64_t sizeOf(const Targets& targets) {
    return targets.empty() ? 0 : targets.back().start + targets.back().length;
}

Device create(const std::string& name, const std::string& uuid) {
    Task task(DM_DEVICE_CREATE, "create the device " + name);
    task.check(dm_task_set_name(task.get(), name.c_str()));
    task.check(dm_task_set_uuid(task.get(), uuid.c_str()));
    task.run();
    const dm_info info = task.info();
    return {name, uuid, makedev(info.major, info.minor)};
}

void load(const Device& device, const Targets& targets) {
    Task task = taskOn(device, DM_DEVICE_RELOAD, "load the table of");
    choose(task, device);
    for (const Target& target : targets) {
        task.check(dm_task_add_target(task.get(), target.start, target.length, target.type.c_str(),
                                      target.parameters.c_str()));
    }
    task.run();
}

void clear(const Device& device) {
    call(device, DM_DEVICE_CLEAR, "clear the new table of");
}

void suspend(const Device& device, bool withFileSystem) {
    Task task = taskOn(device, DM_DEVICE_SUSPEND, "suspend");
    choose(task, device);
    if (!withFileSystem) {
        task.check(dm_task_skip_lockfs(task.get()));
    }
    task.run();
}

void resume(const Device& device, Visibility visibility) {
    Task task = taskOn(device, DM_DEVICE_RESUME, "resume");
    choose(task, device);
    task.tellUdev(visibility);
    task.run();
}

void remove(const Device& device) {
    const auto deadline = std::chrono::steady_clock::now() + removalPatience;
    while (true) {
        try {
            return removeOnce(device);
        } catch (const std::system_error& error) {
            if (error.code().value() != EBUSY || std::chrono::steady_clock::now() >= deadline) {
                throw;
            }
        }
        std::this_thread::sleep_for(removalPause);
    }
}

std::string message(const Device& device, const std::string& text) {
    Task task = taskOn(device, DM_DEVICE_TARGET_MSG, "send a message to");
    choose(task, device);
    task.check(dm_task_set_sector(task.get(), 0));
    task.check(dm_task_set_message(task.get(), text.c_str()));
    task.run();
    const char* answer = dm_task_get_message_response(task.get());
    return answer != nullptr ? answer : "";
}

} // namespace tolvubd::dm
