#pragma once

#include <gio/gio.h>
#include <memory>

namespace agent::info {

struct UnrefObject {
    void operator()(gpointer object) const noexcept { g_object_unref(object); }
};
/// One reference to an object of GLib's object system.
template <typename Object>
using GObjectOwner = std::unique_ptr<Object, UnrefObject>;

struct UnrefObjects {
    void operator()(GList* list) const noexcept { g_list_free_full(list, &g_object_unref); }
};
/// A list, and a reference to each object in it.
using GObjectListOwner = std::unique_ptr<GList, UnrefObjects>;

struct UnrefVariant {
    void operator()(GVariant* variant) const noexcept { g_variant_unref(variant); }
};
using GVariantOwner = std::unique_ptr<GVariant, UnrefVariant>;

struct FreeText {
    void operator()(gchar* text) const noexcept { g_free(text); }
};
using GTextOwner = std::unique_ptr<gchar, FreeText>;

/// The error that a GLib call may return.
/// Owns:    the GError, if the call has failed.
/// Threads: one thread at a time.
/// Fails:   never.
class GErrorOwner {
public:
    GErrorOwner() = default;
    GErrorOwner(const GErrorOwner&) = delete;
    GErrorOwner& operator=(const GErrorOwner&) = delete;
    ~GErrorOwner() { g_clear_error(&error); }

    [[nodiscard]] GError** out() noexcept { return &error; }
    [[nodiscard]] const char* message() const noexcept {
        return error == nullptr ? "no reason given" : error->message;
    }

private:
    GError* error = nullptr;
};

} // namespace agent::info
