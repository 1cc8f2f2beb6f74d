/* replay: a BlueZ stand-in whose GetManagedObjects costs next to nothing.
 *
 * The simulated BlueZ (sim/kelvane_sim) is written in Python: at
 * 5,000 devices it spends ~150 ms building each GetManagedObjects reply,
 * which would drown the client-side cost the benchmarks compare. replay
 * sits on a second bus in front of it:
 *
 *   client --(bus B)--> replay --(bus A)--> simulator
 *
 * - It owns org.bluez on bus B.
 * - GetManagedObjects at a path is asked of the simulator once; a successful
 *   reply is kept and every later call at that path gets a byte copy of it
 *   (dbus_message_copy duplicates the marshalled body). "/" is fetched
 *   before replay declares itself ready.
 * - Every other method call is passed on to the simulator and its reply or
 *   error copied back, so a scan (SetDiscoveryFilter, StartDiscovery,
 *   StopDiscovery), RemoveDevice or an agent registration work as the
 *   simulator defines them. Each client of bus B gets a connection of its
 *   own to bus A, closed when the client leaves bus B: the simulator keys
 *   discovery sessions and agents by caller, and a client that leaves
 *   releases them, as bluetoothd does.
 *
 * Not passed on: signals (neither way) and calls from the simulator back to
 * a client (agent callbacks), so pairing does not work through replay.
 * Changes made through passed-on calls (RemoveDevice, Powered) do not show
 * in the kept GetManagedObjects replies.
 *
 * usage: replay SIMULATOR_BUS_ADDRESS CLIENT_BUS_ADDRESS
 * Prints "ready" on stdout once it serves; runs until killed.
 */
#define _POSIX_C_SOURCE 200809L /* strdup */
#include <dbus/dbus.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define OBJECT_MANAGER "org.freedesktop.DBus.ObjectManager"
#define RELAY_TIMEOUT_MS 60000

struct kept_reply {
    char *path;
    DBusMessage *reply;
};

struct relay {
    char *client; /* unique name on bus B */
    DBusConnection *upstream;
};

static const char *simulator_address;
static struct kept_reply *kept;
static size_t kept_count;
static struct relay *relays;
static size_t relay_count;

static void fail(const char *what, DBusError *error) {
    fprintf(stderr, "replay: %s: %s\n", what,
            error && dbus_error_is_set(error) ? error->message : "out of memory");
    exit(1);
}

static void *grow(void *array, size_t count, size_t size) {
    void *bigger = realloc(array, (count + 1) * size);
    if (!bigger)
        fail("realloc", NULL);
    return bigger;
}

static DBusConnection *open_bus(const char *address) {
    DBusError error;
    dbus_error_init(&error);
    DBusConnection *connection = dbus_connection_open_private(address, &error);
    if (!connection)
        fail(address, &error);
    if (!dbus_bus_register(connection, &error))
        fail("Hello", &error);
    dbus_connection_set_exit_on_disconnect(connection, FALSE);
    return connection;
}

static DBusConnection *upstream_for(const char *client) {
    for (size_t i = 0; i < relay_count; ++i)
        if (strcmp(relays[i].client, client) == 0)
            return relays[i].upstream;
    relays = grow(relays, relay_count, sizeof *relays);
    relays[relay_count].client = strdup(client);
    relays[relay_count].upstream = open_bus(simulator_address);
    return relays[relay_count++].upstream;
}

static void client_left(const char *client) {
    for (size_t i = 0; i < relay_count; ++i) {
        if (strcmp(relays[i].client, client) != 0)
            continue;
        dbus_connection_close(relays[i].upstream);
        dbus_connection_unref(relays[i].upstream);
        free(relays[i].client);
        relays[i] = relays[--relay_count];
        return;
    }
}

/* The simulator's answer to a copy of the call, as a message that can be
 * sent back to the caller on bus B (sender cleared: the bus fills it in). */
static DBusMessage *ask_simulator(DBusConnection *upstream, DBusMessage *call) {
    DBusMessage *forward = dbus_message_copy(call);
    if (!forward)
        fail("copy", NULL);
    dbus_message_set_sender(forward, NULL);
    dbus_message_set_destination(forward, "org.bluez");
    DBusError error;
    dbus_error_init(&error);
    DBusMessage *answer =
        dbus_connection_send_with_reply_and_block(upstream, forward, RELAY_TIMEOUT_MS, &error);
    dbus_message_unref(forward);
    if (!answer) {
        DBusMessage *reply = dbus_message_new_error(call, error.name, error.message);
        dbus_error_free(&error);
        return reply;
    }
    return answer;
}

static DBusMessage *as_reply_to(DBusMessage *answer, DBusMessage *call) {
    if (dbus_message_get_reply_serial(answer) == dbus_message_get_serial(call) &&
        dbus_message_get_sender(answer) == NULL)
        return answer; /* made for this call already (an error built here) */
    DBusMessage *reply = dbus_message_copy(answer);
    if (!reply)
        fail("copy", NULL);
    dbus_message_set_sender(reply, NULL);
    dbus_message_set_reply_serial(reply, dbus_message_get_serial(call));
    dbus_message_set_destination(reply, dbus_message_get_sender(call));
    dbus_message_unref(answer);
    return reply;
}

static DBusMessage *kept_reply_for(const char *path) {
    for (size_t i = 0; i < kept_count; ++i)
        if (strcmp(kept[i].path, path) == 0)
            return kept[i].reply;
    return NULL;
}

static void keep_reply(const char *path, DBusMessage *reply) {
    kept = grow(kept, kept_count, sizeof *kept);
    kept[kept_count].path = strdup(path);
    kept[kept_count].reply = reply;
    ++kept_count;
}

static DBusMessage *answer(DBusMessage *call) {
    const char *interface = dbus_message_get_interface(call);
    const char *member = dbus_message_get_member(call);
    const char *path = dbus_message_get_path(call);
    const int managed_objects = interface && member && path &&
                                strcmp(interface, OBJECT_MANAGER) == 0 &&
                                strcmp(member, "GetManagedObjects") == 0;
    if (managed_objects) {
        DBusMessage *kept_answer = kept_reply_for(path);
        if (kept_answer) {
            dbus_message_ref(kept_answer);
            return as_reply_to(kept_answer, call);
        }
    }
    DBusMessage *reply = ask_simulator(upstream_for(dbus_message_get_sender(call)), call);
    if (managed_objects && dbus_message_get_type(reply) == DBUS_MESSAGE_TYPE_METHOD_RETURN) {
        dbus_message_ref(reply);
        keep_reply(path, reply);
    }
    return as_reply_to(reply, call);
}

/* NameOwnerChanged(name, old, "") for a unique name: that client is gone. */
static void handle_signal(DBusMessage *signal) {
    if (!dbus_message_is_signal(signal, DBUS_INTERFACE_DBUS, "NameOwnerChanged"))
        return;
    const char *name, *old_owner, *new_owner;
    if (dbus_message_get_args(signal, NULL, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &old_owner,
                              DBUS_TYPE_STRING, &new_owner, DBUS_TYPE_INVALID) &&
        name[0] == ':' && new_owner[0] == '\0')
        client_left(name);
}

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: replay SIMULATOR_BUS_ADDRESS CLIENT_BUS_ADDRESS\n");
        return 2;
    }
    simulator_address = argv[1];
    DBusError error;
    dbus_error_init(&error);

    /* "/" is fetched on a connection of replay's own, before any client. */
    DBusConnection *prefetch = open_bus(simulator_address);
    DBusMessage *call =
        dbus_message_new_method_call("org.bluez", "/", OBJECT_MANAGER, "GetManagedObjects");
    DBusMessage *reply =
        dbus_connection_send_with_reply_and_block(prefetch, call, RELAY_TIMEOUT_MS, &error);
    if (!reply)
        fail("GetManagedObjects at /", &error);
    dbus_message_unref(call);
    keep_reply("/", reply);
    dbus_connection_close(prefetch);
    dbus_connection_unref(prefetch);

    DBusConnection *bus = open_bus(argv[2]);
    dbus_bus_add_match(bus,
                       "type='signal',sender='org.freedesktop.DBus',"
                       "interface='org.freedesktop.DBus',member='NameOwnerChanged'",
                       &error);
    if (dbus_error_is_set(&error))
        fail("AddMatch", &error);
    const int owner = dbus_bus_request_name(bus, "org.bluez", DBUS_NAME_FLAG_DO_NOT_QUEUE, &error);
    if (owner != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER)
        fail("RequestName org.bluez", &error);
    printf("ready\n");
    fflush(stdout);

    while (dbus_connection_read_write(bus, -1)) {
        DBusMessage *message;
        while ((message = dbus_connection_pop_message(bus)) != NULL) {
            const int type = dbus_message_get_type(message);
            if (type == DBUS_MESSAGE_TYPE_SIGNAL) {
                handle_signal(message);
            } else if (type == DBUS_MESSAGE_TYPE_METHOD_CALL) {
                DBusMessage *response = answer(message);
                if (!dbus_message_get_no_reply(message))
                    dbus_connection_send(bus, response, NULL);
                dbus_message_unref(response);
            }
            dbus_message_unref(message);
        }
    }
    return 0;
}
