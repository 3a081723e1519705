/*
 * vex: the modem message-interface client library.
 *
 * A client talks to one modem service (for example WDS) over a UNIX-domain socket in the service
 * directory: $VEX_SERVICE_DIR when set, else $XDG_RUNTIME_DIR/vex-services, else
 * /tmp/vex-services-UID. Requests and responses travel as the service's fixed C records;
 * indications arrive encoded and are expanded with vex_client_message_decode.
 *
 * Trust: a client uses a service directory only when it is a real directory of its own user that
 * nobody else may write, and talks only to a service run by its own user or root; it refuses
 * anything else with VEX_ERR_UNSAFE_DIR or VEX_ERR_PEER_REFUSED and one line on standard error.
 * No call waits longer than its timeout; connecting (vex_client_get_any_service,
 * vex_client_init) takes at most a second.
 *
 * Threads: every notify, indication and error callback runs on a thread owned by this library,
 * never on the caller's. A callback may call any function here except vex_client_release on its
 * own handle.
 */
#ifndef KELR_PLATFORM_VEX_CLIENT_H
#define KELR_PLATFORM_VEX_CLIENT_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Results of every call: 0 on success, a negative code otherwise. */
typedef int vex_client_error_type;
#define VEX_NO_ERR 0
#define VEX_ERR_INTERNAL (-1)        /* out of resources or a broken invariant */
#define VEX_ERR_PARAM (-2)           /* a null or out-of-range argument */
#define VEX_ERR_INVALID_CLIENT (-3)  /* the handle is null, released or of the wrong kind */
#define VEX_ERR_NO_SERVICE (-4)      /* the service is not up */
#define VEX_ERR_TIMEOUT (-5)         /* no response within the timeout */
#define VEX_ERR_CONNECTION_LOST (-6) /* the service closed the connection or went down */
#define VEX_ERR_BAD_MESSAGE (-7)     /* unknown message id, wrong size or malformed encoding */
#define VEX_ERR_VERSION (-8)         /* the service object's version is not served */
#define VEX_ERR_PEER_REFUSED (-9)    /* the service runs as another user: not talked to */
#define VEX_ERR_UNSAFE_DIR (-10)     /* the service directory is not this user's own: not used */

/* The kind of a message, as vex_client_message_decode is told. */
typedef enum {
    VEX_IDL_REQUEST = 0,
    VEX_IDL_RESPONSE = 1,
    VEX_IDL_INDICATION = 2,
} vex_idl_type_of_msg_type;

/* Describes a service: its name, versions and the sizes of its messages. Owned by the service
 * definition (static storage); never freed. */
typedef const struct vex_service_object* vex_idl_service_object_type;

/* Opaque handle of a client or a notifier. */
typedef struct vex_client_struct* vex_client_type;

/* Service events reported to a notifier. */
typedef enum {
    VEX_CLIENT_SERVICE_COUNT_INCREASING = 0,
    VEX_CLIENT_SERVICE_COUNT_DECREASING = 1,
} vex_client_notify_event_type;

/* Operating-system parameters of a client; callers zero it before use. */
typedef struct {
    int ext_signal;
    int sig;
    int timer_sig;
} vex_client_os_params;

/* One instance of a service, as found by vex_client_get_any_service. */
typedef struct {
    uint32_t service_id;
    uint32_t instance;
    char path[108];
} vex_service_info;

typedef void (*vex_client_notify_cb)(vex_client_type user_handle,
                                     vex_idl_service_object_type service_obj,
                                     vex_client_notify_event_type service_event,
                                     void* notify_cb_data);
typedef void (*vex_client_ind_cb)(vex_client_type user_handle, unsigned int msg_id, void* ind_buf,
                                  unsigned int ind_buf_len, void* ind_cb_data);
typedef void (*vex_client_error_cb)(vex_client_type user_handle, vex_client_error_type error,
                                    void* err_cb_data);

/* Creates a notifier for the service. It reports VEX_CLIENT_SERVICE_COUNT_INCREASING once a
 * callback is registered and the service is up (at once if it already is), and again after
 * every restart of the service. */
vex_client_error_type vex_client_notifier_init(vex_idl_service_object_type service_obj,
                                               vex_client_os_params* os_params,
                                               vex_client_type* user_handle);

/* Registers the notifier's callback; replaces an earlier one. */
vex_client_error_type vex_client_register_notify_cb(vex_client_type user_handle,
                                                    vex_client_notify_cb notify_cb,
                                                    void* notify_cb_data);

/* Finds an instance of the service that is up now; VEX_ERR_NO_SERVICE when there is none,
 * VEX_ERR_TIMEOUT when it does not take a connection within a second (its accept queue is full). */
vex_client_error_type vex_client_get_any_service(vex_idl_service_object_type service_obj,
                                                 vex_service_info* service_info);

/* Connects a client to the service instance. Indications go to ind_cb with ind_cb_data. Fails as
 * vex_client_get_any_service does when the service is gone, refused or does not take the
 * connection within a second. */
vex_client_error_type vex_client_init(vex_service_info* service_info,
                                      vex_idl_service_object_type service_obj,
                                      vex_client_ind_cb ind_cb, void* ind_cb_data,
                                      vex_client_os_params* os_params,
                                      vex_client_type* user_handle);

/* Registers the callback that reports, exactly once, that the client's service went away. If the
 * connection is already lost the callback runs at once (on the library's thread). */
vex_client_error_type vex_client_register_error_cb(vex_client_type user_handle,
                                                   vex_client_error_cb err_cb, void* err_cb_data);

/* Sends a request and waits at most timeout_msecs for its response. The request and response
 * lengths must be the service's sizes for msg_id (VEX_ERR_BAD_MESSAGE otherwise). On any error
 * the response buffer is left zeroed. */
vex_client_error_type vex_client_send_msg_sync(vex_client_type user_handle, unsigned int msg_id,
                                               void* req_c_struct, unsigned int req_c_struct_len,
                                               void* resp_c_struct, unsigned int resp_c_struct_len,
                                               unsigned int timeout_msecs);

/* Validates an encoded message completely and expands it into its C record (zero-filled first).
 * VEX_ERR_BAD_MESSAGE for anything malformed, unknown or of the wrong record size. */
vex_client_error_type vex_client_message_decode(vex_client_type user_handle,
                                                vex_idl_type_of_msg_type req_resp_ind,
                                                unsigned int message_id, const void* msg_buf,
                                                unsigned int msg_buf_len, void* c_struct,
                                                unsigned int c_struct_len);

/* Releases a client or notifier. Waits for a callback in flight on another thread to return; no
 * callback of the handle runs after this returns. */
vex_client_error_type vex_client_release(vex_client_type user_handle);

#ifdef __cplusplus
}
#endif

#endif
