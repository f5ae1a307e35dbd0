#pragma once

#include "support/MessageBus.h"

#include <future>
#include <optional>
#include <string>
#include <thread>
#include <udisks/udisks.h>
#include <vector>

namespace agent::test {

/// An object of a udisks2 daemon. Each optional member stands for an interface that the object may have.
struct UdisksObject {
    struct Block {
        std::string device = "/dev/null";
        std::string uuid{};
        std::string label{};
        std::string usage = "filesystem";
        std::string type = "ext4";
        std::uint64_t size = 0;
        bool readOnly = false;
        std::string configuration = "@a(sa{sv}) []"; ///< in GVariant text format
        std::string drive = "/";
    };

    std::string name; ///< the last component of its object path
    std::optional<Block> block{};
    std::optional<std::vector<std::string>> mountPoints{}; ///< of the Filesystem interface
    bool swapspace = false;
    bool loop = false;
    std::optional<std::string> table{}; ///< of a partition: object path of the disk
    std::optional<std::string> tableType{};
    std::optional<bool> removable{}; ///< of a drive
};

inline std::string udisksPath(const std::string& name) {
    return "/org/freedesktop/UDisks2/" + name;
}

/// Exports objects on the bus as a udisks2 daemon does, using the daemon's own library.
/// Owns:    a thread with a main loop and a connection to the bus; the destructor ends both.
/// Threads: one constructs and destroys it; the objects are served in its own thread.
/// Fails:   errors of the bus aren't handled, so the message bus must be running.
class FakeUdisks {
public:
    explicit FakeUdisks(std::vector<UdisksObject> objects, bool named = true)
        : objects(std::move(objects)),
          named(named),
          context(g_main_context_new()),
          loop(g_main_loop_new(context, FALSE)) {
        std::promise<void> ready;
        std::future<void> whenReady = ready.get_future();
        thread = std::thread([this, ready = std::move(ready)]() mutable { serve(ready); });
        whenReady.wait();
    }
    FakeUdisks(const FakeUdisks&) = delete;
    FakeUdisks& operator=(const FakeUdisks&) = delete;
    ~FakeUdisks() {
        g_main_context_invoke(
            context,
            [](gpointer ended) -> gboolean {
                g_main_loop_quit(static_cast<GMainLoop*>(ended));
                return FALSE;
            },
            loop);
        thread.join();
        g_main_loop_unref(loop);
        g_main_context_unref(context);
    }

private:
    void serve(std::promise<void>& ready) {
        g_main_context_push_thread_default(context);
        GDBusConnection* connection = connect();
        GDBusObjectManagerServer* manager = g_dbus_object_manager_server_new("/org/freedesktop/UDisks2");
        for (const UdisksObject& object : objects) {
            exportObject(manager, object);
        }
        g_dbus_object_manager_server_set_connection(manager, connection);
        if (named) {
            takeName(connection);
        }
        ready.set_value();
        g_main_loop_run(loop);
        g_object_unref(manager);
        g_dbus_connection_close_sync(connection, nullptr, nullptr);
        g_object_unref(connection);
        while (g_main_context_iteration(context, FALSE) != FALSE) {
        }
        g_main_context_pop_thread_default(context);
    }

    static GDBusConnection* connect() {
        return g_dbus_connection_new_for_address_sync(
            busAddress.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, nullptr);
    }

    static void takeName(GDBusConnection* connection) {
        GVariant* answer = g_dbus_connection_call_sync(
            connection, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "RequestName", g_variant_new_parsed("('org.freedesktop.UDisks2', @u 0)"), nullptr,
            G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        g_variant_unref(answer);
    }

    static void exportObject(GDBusObjectManagerServer* manager, const UdisksObject& object) {
        UDisksObjectSkeleton* skeleton = udisks_object_skeleton_new(udisksPath(object.name).c_str());
        if (object.block) {
            give(skeleton, &udisks_object_skeleton_set_block, makeBlock(*object.block));
        }
        if (object.mountPoints) {
            give(skeleton, &udisks_object_skeleton_set_filesystem, makeFilesystem(*object.mountPoints));
        }
        if (object.swapspace) {
            give(skeleton, &udisks_object_skeleton_set_swapspace, udisks_swapspace_skeleton_new());
        }
        if (object.loop) {
            give(skeleton, &udisks_object_skeleton_set_loop, udisks_loop_skeleton_new());
        }
        exportTables(skeleton, object);
        g_dbus_object_manager_server_export(manager, G_DBUS_OBJECT_SKELETON(skeleton));
        g_object_unref(skeleton);
    }

    static void exportTables(UDisksObjectSkeleton* skeleton, const UdisksObject& object) {
        if (object.table) {
            UDisksPartition* partition = udisks_partition_skeleton_new();
            udisks_partition_set_table(partition, object.table->c_str());
            give(skeleton, &udisks_object_skeleton_set_partition, partition);
        }
        if (object.tableType) {
            UDisksPartitionTable* table = udisks_partition_table_skeleton_new();
            udisks_partition_table_set_type_(table, object.tableType->c_str());
            give(skeleton, &udisks_object_skeleton_set_partition_table, table);
        }
        if (object.removable) {
            UDisksDrive* drive = udisks_drive_skeleton_new();
            udisks_drive_set_removable(drive, *object.removable ? TRUE : FALSE);
            give(skeleton, &udisks_object_skeleton_set_drive, drive);
        }
    }

    template <typename Interface>
    static void give(UDisksObjectSkeleton* skeleton, void (*set)(UDisksObjectSkeleton*, Interface*),
                     Interface* interface) {
        set(skeleton, interface);
        g_object_unref(interface);
    }

    static UDisksBlock* makeBlock(const UdisksObject::Block& block) {
        UDisksBlock* made = udisks_block_skeleton_new();
        udisks_block_set_device(made, block.device.c_str());
        udisks_block_set_id_uuid(made, block.uuid.c_str());
        udisks_block_set_id_label(made, block.label.c_str());
        udisks_block_set_id_usage(made, block.usage.c_str());
        udisks_block_set_id_type(made, block.type.c_str());
        udisks_block_set_size(made, block.size);
        udisks_block_set_read_only(made, block.readOnly ? TRUE : FALSE);
        udisks_block_set_configuration(made, g_variant_new_parsed(block.configuration.c_str()));
        udisks_block_set_drive(made, block.drive.c_str());
        return made;
    }

    static UDisksFilesystem* makeFilesystem(const std::vector<std::string>& mountPoints) {
        std::vector<const gchar*> pointers;
        for (const std::string& mountPoint : mountPoints) {
            pointers.push_back(mountPoint.c_str());
        }
        pointers.push_back(nullptr);
        UDisksFilesystem* filesystem = udisks_filesystem_skeleton_new();
        udisks_filesystem_set_mount_points(filesystem, pointers.data());
        return filesystem;
    }

    const std::vector<UdisksObject> objects;
    const bool named;
    GMainContext* context;
    GMainLoop* loop;
    std::thread thread;
};

} // namespace agent::test
