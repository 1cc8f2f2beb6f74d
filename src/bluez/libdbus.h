#pragma once

// Types and constants only: the functions are reached through libdbus(), so
// that a run which never speaks to the bus (the usage text, a restore) does
// not load libdbus and the libraries it pulls in.
#include <dbus/dbus.h>

namespace kelvane::bluez {

// Every libdbus function the tool calls.
#define KELVANE_LIBDBUS_FUNCTIONS(X)                                                               \
    X(dbus_bus_get_private)                                                                        \
    X(dbus_connection_close)                                                                       \
    X(dbus_connection_flush)                                                                       \
    X(dbus_connection_get_is_connected)                                                            \
    X(dbus_connection_read_write_dispatch)                                                         \
    X(dbus_connection_send)                                                                        \
    X(dbus_connection_send_with_reply)                                                             \
    X(dbus_connection_set_exit_on_disconnect)                                                      \
    X(dbus_connection_try_register_object_path)                                                    \
    X(dbus_connection_unref)                                                                       \
    X(dbus_connection_unregister_object_path)                                                      \
    X(dbus_error_free)                                                                             \
    X(dbus_error_init)                                                                             \
    X(dbus_message_get_error_name)                                                                 \
    X(dbus_message_get_interface)                                                                  \
    X(dbus_message_get_member)                                                                     \
    X(dbus_message_get_no_reply)                                                                   \
    X(dbus_message_get_sender)                                                                     \
    X(dbus_message_get_signature)                                                                  \
    X(dbus_message_get_type)                                                                       \
    X(dbus_message_has_signature)                                                                  \
    X(dbus_message_iter_abandon_container)                                                         \
    X(dbus_message_iter_append_basic)                                                              \
    X(dbus_message_iter_close_container)                                                           \
    X(dbus_message_iter_get_arg_type)                                                              \
    X(dbus_message_iter_get_basic)                                                                 \
    X(dbus_message_iter_get_element_type)                                                          \
    X(dbus_message_iter_init)                                                                      \
    X(dbus_message_iter_init_append)                                                               \
    X(dbus_message_iter_next)                                                                      \
    X(dbus_message_iter_open_container)                                                            \
    X(dbus_message_iter_recurse)                                                                   \
    X(dbus_message_new_error)                                                                      \
    X(dbus_message_new_method_call)                                                                \
    X(dbus_message_new_method_return)                                                              \
    X(dbus_message_unref)                                                                          \
    X(dbus_pending_call_block)                                                                     \
    X(dbus_pending_call_cancel)                                                                    \
    X(dbus_pending_call_get_completed)                                                             \
    X(dbus_pending_call_steal_reply)                                                               \
    X(dbus_pending_call_unref)                                                                     \
    X(dbus_validate_error_name)                                                                    \
    X(dbus_validate_path)                                                                          \
    X(dbus_validate_utf8)

struct LibDbus {
#define KELVANE_LIBDBUS_POINTER(name) decltype(&::name) name;
    KELVANE_LIBDBUS_FUNCTIONS(KELVANE_LIBDBUS_POINTER)
#undef KELVANE_LIBDBUS_POINTER
};

// libdbus's functions, loaded on first use; null when the library cannot be
// loaded, with the reason in libdbusLoadError().
const LibDbus *loadLibDbus();
const char *libdbusLoadError();

// The functions, for code that runs once the connection is open (which
// loads them) or on messages that exist; loading them if need be.
const LibDbus &libdbus();

} // namespace kelvane::bluez
