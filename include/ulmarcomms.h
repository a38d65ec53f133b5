/*
 * ulmarcomms.h - the C interface of libulmarcomms.
 *
 * Applications start the runtime, create named endpoints ("message pumps"),
 * build messages of text key/value pairs and post them to addresses of the
 * form host@name/name. Requests, replies and error replies arrive through the
 * three callbacks registered with each pump; every callback runs on the
 * process router's worker thread, and the message and texts it receives are
 * valid only during the call unless the callback raises the message's count.
 *
 * Pumps and messages are opaque handles. A message that was created and not
 * posted is the caller's to release with UlmarCommsDestroyMessage; a posted
 * message belongs to the library whatever the result, except the results 1
 * and 4 of UlmarCommsPostMessage, which leave it with the caller.
 *
 * Result codes of the integer-returning functions:
 *   0 success; 1 library not started; 2 allocation failure or caught exception;
 *   4 null or empty argument, or the operation was refused; 5 request without
 *   sender or sender id; 6 the pump has no router or the router refused;
 *   7 null pump handle; 1003 event not created on the pump;
 *   90, 91, 92 start-up failures (network router, local link, message router).
 */
#ifndef ULMARCOMMS_H
#define ULMARCOMMS_H

#ifndef __cplusplus
#include <stdbool.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes. */
#define ULMARCOMMS_OK 0
#define ULMARCOMMS_NOT_STARTED 1
#define ULMARCOMMS_FAILED 2
#define ULMARCOMMS_BAD_ARGUMENT 4
#define ULMARCOMMS_NO_SENDER 5
#define ULMARCOMMS_NOT_ROUTED 6
#define ULMARCOMMS_NULL_PUMP 7
#define ULMARCOMMS_NO_EVENT 1003
#define ULMARCOMMS_START_NETWORK_ROUTER 90
#define ULMARCOMMS_START_LOCAL_LINK 91
#define ULMARCOMMS_START_MESSAGE_ROUTER 92

/* Error codes the library itself sends in error replies. */
#define ULMARCOMMS_ERROR_NO_PATH 400
#define ULMARCOMMS_ERROR_UNKNOWN_QUERY 1002

/* Log levels handed to the logger. */
#define ULMARCOMMS_LOG_VERBOSE 0
#define ULMARCOMMS_LOG_MESSAGE 1
#define ULMARCOMMS_LOG_WARNING 2
#define ULMARCOMMS_LOG_ERROR 3
#define ULMARCOMMS_LOG_FATAL 4

/* A request arrived: the message, its target address and method. */
typedef void (*UlmarCommsMessageCallback)(void* context, void* message, const char* to, const char* method);
/* A reply arrived to the request whose message id is responseId. */
typedef void (*UlmarCommsResponseCallback)(void* context, unsigned int responseId, void* message);
/* An error reply arrived to the request whose message id is responseId. */
typedef void (*UlmarCommsErrorCallback)(void* context, unsigned int responseId, int errorCode);
/*
 * The log sink. The library never formats text: it passes the printf format
 * and the call's va_list as char*; format it with
 *   vsnprintf(buffer, size, format, *(va_list*)args);
 * Calls are serialised: the logger is never entered by two threads at once.
 */
typedef void (*UlmarCommsLogger)(int level, const char* format, char* args);

/* --- Life cycle ---------------------------------------------------------- */

/* Starts the application runtime; arg is null, "", "key=value;..." or a text
   without '=', which is ignored. */
int UlmarCommsStart(const char* arg);
/* Shuts the application runtime down; 1 if not started, else 0. */
int UlmarCommsShutdown(void);
/* Starts the runtime as the machine's system router service. */
int UlmarCommsSystemStartUp(const char* arg);
/* Stops the service; the library still counts as started afterwards. */
int UlmarCommsSystemShutdown(void);

/* --- Pumps --------------------------------------------------------------- */

/* Creates a pump named name (interfaces: comma-separated, may be null). */
void* UlmarCommsCreateMessagePump(const char* name, void* context, UlmarCommsMessageCallback messageCallback,
                                  UlmarCommsResponseCallback responseCallback, UlmarCommsErrorCallback errorCallback,
                                  const char* interfaces);
/* Removes a pump from its router and destroys it. */
int UlmarCommsDestroyMessagePump(void* pump);
/* The pump's full address (host@name). */
const char* UlmarCommsMessagePumpAddress(void* pump);
/* Creates an event the pump publishes (an existing one keeps its listeners). */
int UlmarCommsMessagePumpCreateEvent(void* pump, const char* eventName);
/* Destroys an event and drops its listeners. */
int UlmarCommsMessagePumpDestroyEvent(void* pump, const char* eventName);

/* --- Building messages (each returns a new message with count 1, or null) */

/* A plain request to `to` with `method`. */
void* UlmarCommsCreateMessage(void* pump, const char* to, const char* method);
/* A reply to request (response may be null). */
void* UlmarCommsCreateReplyMessage(void* pump, void* request, const char* response);
/* "#HsList" to the local system endpoint. */
void* UlmarCommsCreateSystemListHostsMessage(void* pump);
/* "NetHostSupportInterfaces" to the local system endpoint. */
void* UlmarCommsCreateListHostsSupportingInterfaces(void* pump, const char* interfaces, bool match);
/* "#AdsSupIs" to host's system endpoint (host may be empty: this host). */
void* UlmarCommsCreateSystemGetAddressesSupportingInterfacesMessage(void* pump, const char* host,
                                                                    const char* interfaces);
/* "#IsHas": does `to` support the interface? */
void* UlmarCommsCreateHasInterfacesMessage(void* pump, const char* to, const char* interfaces);
/* "#IsList": which interfaces does `to` have? */
void* UlmarCommsCreateListInterfacesMessage(void* pump, const char* to);
/* "#EsList": which events does `to` publish? */
void* UlmarCommsCreateListEventsMessage(void* pump, const char* to);
/* "#reg": register (reg true) or unregister for remoteEventName at `to`. */
void* UlmarCommsCreateEventRegistrationMessage(void* pump, const char* returnMethod, const char* to,
                                               const char* remoteEventName, bool reg);
/* An event message for an event the pump created. */
void* UlmarCommsCreateEventMessage(void* pump, const char* eventName);

/* --- Sending ------------------------------------------------------------- */

/* Posts a message; afterwards it belongs to the library (unless 1 or 4). */
int UlmarCommsPostMessage(void* pump, void* message);
/* Sends an error reply with errorCode to request; the request stays yours. */
int UlmarCommsSendErrorMessage(void* pump, void* request, int errorCode);

/* --- Reading and changing messages --------------------------------------- */

/* The target address ("_t"), or null. */
const char* UlmarCommsGetTo(void* message);
/* The sender's address ("_f"), or null. */
const char* UlmarCommsGetFrom(void* message);
/* The mode ("_M": "N" or "E"), or null. */
const char* UlmarCommsGetMode(void* message);
/* The sender id ("_s"), or null. */
const char* UlmarCommsGetSenderId(void* message);
/* The id of the request a reply answers ("_R"), or null. */
const char* UlmarCommsGetResponseId(void* message);
/* The response text of a reply ("_r"), or null. */
const char* UlmarCommsGetResponse(void* message);
/* The method ("_m"; the error code in an error reply), or null. */
const char* UlmarCommsGetMethod(void* message);
/* All seven header fields at once; null output pointers are skipped. */
int UlmarCommsGetMandatoryFields(void* message, const char** to, const char** from, const char** mode,
                                 const char** senderId, const char** responseId, const char** response,
                                 const char** method);
/* Whether the message has a pair with this key (0 or 1). */
int UlmarCommsMessageHasKey(void* message, const char* key);
/* The value of the first pair with this key, or null. */
const char* UlmarCommsMessageValue(void* message, const char* key);
/* Appends a pair (at most 25 pairs per message). */
int UlmarCommsMessageAddKeyValue(void* message, const char* key, const char* value);
/* The message's sender id as a number (-1 without one). */
int UlmarCommsMessageId(void* pump, void* message);
/* Keeps a message beyond a callback: raises its count. */
int UlmarCommsIncCounterMessage(void* message);
/* Releases one reference to a message. */
void UlmarCommsDestroyMessage(void* message);

/* --- Settings and logging (usable before start-up) ----------------------- */

/* Adds a number setting (the first value stored for a key wins). */
int UlmarCommsSetOptionNumber(const char* key, int value);
/* Adds a text setting (the first value stored for a key wins). */
int UlmarCommsSetOptionString(const char* key, const char* value);
/* Installs the library's logger (null switches logging off). */
int UlmarCommsSetLogger(UlmarCommsLogger logger);
/* The lowest level passed to the logger (default 2, warnings). */
int UlmarCommsSetLoggerLevel(int level);
/* Installs the socket layer's logger. */
int UlmarCommsSocketsSetLogger(UlmarCommsLogger logger);
/* The socket layer's lowest logged level. */
int UlmarCommsSocketsSetLoggerLevel(int level);
/* Accepted and ignored: the socket layer has no options to set. */
int UlmarCommsSocketsSetOptionString(const char* key, const char* value);
/* Accepted and ignored, like the above; the name is spelt so on purpose. */
int UlmarCommsScoketsSetOptionNumber(const char* key, int value);

#ifdef __cplusplus
}
#endif

#endif /* ULMARCOMMS_H */
