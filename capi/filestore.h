/* SPDX-License-Identifier: Apache-2.0 */
/*
 * filestore: an encrypted, crash-safe store for keys, certificates, CRLs, requests and other bytes,
 * as a C library.
 *
 *     filestore_db* db = NULL;
 *     filestore_error error = FILESTORE_ERROR_INIT;
 *     filestore_key key = FILESTORE_KEY_INIT;
 *     filestore_record* record = NULL;
 *     key.bytes = "correct horse";
 *     key.length = 13;
 *     if (filestore_open("keys", NULL, &db, &error) == FILESTORE_OK &&
 *         filestore_unlock(db, &key, NULL, &error) == FILESTORE_OK &&
 *         filestore_get(db, "settings/a", 0, &record, &error) == FILESTORE_OK) {
 *         size_t size = 0;
 *         const void* const body = filestore_record_body(record, &size);
 *         ...
 *     }
 *     filestore_record_free(record);
 *     filestore_close(db);
 *
 * A database is the folder `db` in the folder that is opened; a record in it has a folder, a name,
 * attributes and a body. Addresses are written as the command-line tool takes them:
 * "certificates/local/server", "server" alone where that is unambiguous, or "sha256:" and the first
 * digits of the digest of the body. A new record needs folder and name. All text is UTF-8 or
 * whatever bytes names on disk have, and ends with a NUL.
 *
 * Results. Every function that can fail returns a status of the table below, the same numbers as
 * the exit codes of the command-line tool, and describes a failure in the caller's error object, if
 * there is one. The library remembers no error. Results that are handed out through pointers are
 * set only where a function says so; otherwise they are NULL after a failure.
 *
 * Structures. A structure that a caller fills begins with its size, set by its _INIT, so that later
 * versions can add members at its end. One of an older version is taken as if what it lacks were 0;
 * members that this version does not know must be 0, or the answer is FILESTORE_INVALID. Texts and
 * bytes that a structure points to stay the caller's and are used during the call only.
 *
 * Memory. What the library hands out stands alone: it needs no open handle, and is given back with
 * filestore_record_free(), filestore_list_free() or filestore_free(), which wipe it first. Keys are
 * wiped wherever the library has held them.
 *
 * Threads. Any thread may call any function. Any number of threads may use one handle at once: they
 * read side by side, and one that writes keeps out the others, as another process would. A record,
 * a list and an error object are for one thread at a time. filestore_close() needs a handle that no
 * other thread is using. Callbacks may be called by threads of the library, several at once; they
 * must return, not throw or longjmp() away, and must not call the library with the same handle.
 *
 * Locks. The database is locked only while a function runs that reads or changes it: shared for
 * reading, exclusively for changes. A function that waits longer than the lock_seconds of the
 * handle answers FILESTORE_BUSY and has done nothing. Where several hosts share the file system, a
 * function whose host has lost the lock meanwhile answers FILESTORE_IO, and writes nothing more.
 *
 * Crashes and cancelling. Whatever happens during a call, power loss included, each record is in
 * its old or in its new state afterwards, and what the call had reported as done stays done. A long
 * call that is cancelled leaves the database as it was, or with what was already done, and answers
 * FILESTORE_INTERRUPTED.
 *
 * Processes. After fork() the child may use handles that were opened and unlocked by the parent, as
 * if it had opened them itself; each process locks on its own. If another thread was inside of a
 * function of this library when the process was forked, all handles answer FILESTORE_CLOSED in the
 * child, and so does filestore_open(): what that thread has left behind can belong to nobody. Do
 * not fork in a callback, other than to exec.
 *
 * Signals. A signal that a handler takes interrupts no function. A limit of file sizes, and a pipe
 * that nobody reads, are FILESTORE_IO: the SIGXFSZ or SIGPIPE of such a write is taken away from
 * the thread and does not reach the program.
 *
 * Descriptors. A program keeps 0, 1 and 2 open, if only to /dev/null: otherwise files of the
 * database get these numbers, and what the program prints can end up in them. Without free
 * descriptors functions answer FILESTORE_IO, and work again when there are some.
 *
 * The library prints nothing, installs no signal handlers, ends no process, changes neither folder
 * nor umask, and reads of the environment only FILESTORE_MODULES, which may name the folder of the
 * store's modules by an absolute path, and only in a program that runs with no more rights than its
 * caller. It stays in memory until the process ends.
 */
#ifndef CAPI_FILESTORE_H
#define CAPI_FILESTORE_H

#include <stddef.h>
#include <stdint.h>

#if defined(__GNUC__)
#define FILESTORE_API __attribute__((visibility("default")))
#else
#define FILESTORE_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* The version of this header. One library works with the headers of all older versions of its
 * major. */
#define FILESTORE_VERSION_MAJOR 1
#define FILESTORE_VERSION_MINOR 0

/* ---- Statuses ---- */

/* Those of the command-line tool. A later version may answer others. */
enum filestore_status_code {
    FILESTORE_OK = 0,
    FILESTORE_NO_MEMORY = 1, /* out of memory */
    FILESTORE_USAGE = 2,     /* a filter cannot be read, or no password was given */
    FILESTORE_FOUND = 3,     /* damage was found */
    FILESTORE_INVALID = 4,   /* an argument that cannot be, or that the present state excludes */
    FILESTORE_PARTIAL = 5,   /* a part was done or looked at, a part was not */
    FILESTORE_WRONG_PASSWORD = 6, /* the password or key is not the database's, or not the file's */
    FILESTORE_IO = 9,             /* a file could not be read or written, or a cipher failed */
    FILESTORE_NOT_OPEN = 14,  /* not unlocked, or the password was changed by somebody else since */
    FILESTORE_BUSY = 33,      /* others used the database for longer than the handle waits */
    FILESTORE_CLOSED = 35,    /* the process was forked within an operation of another thread */
    FILESTORE_NOT_FOUND = 36, /* no such attribute or entry */
    FILESTORE_NO_SERVICE = 40,  /* the store's modules could not be loaded */
    FILESTORE_MISSING = 50,     /* no such record, folder, file or database */
    FILESTORE_MALFORMED = 59,   /* malformed or damaged data */
    FILESTORE_NO_DIGEST = 74,   /* the record of the password is damaged */
    FILESTORE_FOREIGN = 125,    /* a failure that has no code of its own */
    FILESTORE_INTERRUPTED = 130 /* cancelled */
};
typedef int filestore_status;

/* The same word for a status in every version: "ok", "wrong-password", ...; "foreign" for a number
 * that is none. Never NULL. */
FILESTORE_API const char* filestore_status_name(filestore_status status);

/* The version of the library that is loaded: major * 1000000 + minor * 1000 + patch. */
FILESTORE_API uint32_t filestore_version(void);

/* What went wrong, in the caller's memory: describing a failure allocates nothing. After success
 * the status is FILESTORE_OK and the texts are empty. An object whose size is less than this one's
 * is left alone. */
typedef struct filestore_error {
    size_t size;             /* sizeof(filestore_error) */
    filestore_status status; /* as the function returned it */
    char path[4096];    /* the file or record concerned; may be empty; cut off where it is longer */
    char message[2048]; /* a sentence for people, without a secret; cut off where it is longer */
} filestore_error;
#define FILESTORE_ERROR_INIT \
    { sizeof(filestore_error), FILESTORE_OK, "", "" }

/* ---- What the library calls during an operation ---- */

/* Any member may be NULL. */
typedef struct filestore_callbacks {
    size_t size; /* sizeof(filestore_callbacks) */
    void* user;  /* passed to each of them */
    /* `done` of about `total` steps of `what` ("Checking") are done. */
    void (*progress)(void* user, const char* what, uint64_t done, uint64_t total);
    /* Other than 0: the operation is to stop. Asked after each step. */
    int (*cancelled)(void* user);
    /* What deserves attention although the operation goes on; a sentence, which may contain names
     * from disk as they are. */
    void (*warn)(void* user, const char* text);
    /* What was done besides; a sentence of the same kind. */
    void (*note)(void* user, const char* text);
} filestore_callbacks;
#define FILESTORE_CALLBACKS_INIT \
    { sizeof(filestore_callbacks), NULL, NULL, NULL, NULL, NULL }

/* ---- Opening, unlocking, closing ---- */

typedef struct filestore_db filestore_db;

enum filestore_open_flag {
    /* Make the folder where there is none, though not those above it. The first filestore_unlock()
     * with a password creates the database in it. */
    FILESTORE_CREATE = 1,
    /* Functions that change the database answer FILESTORE_INVALID. What a crash left behind is
     * repaired by whoever comes first, also by a reader. */
    FILESTORE_READ_ONLY = 2,
    /* Work only where the lock of the database surely holds between hosts: functions answer
     * FILESTORE_USAGE elsewhere, instead of a warning. */
    FILESTORE_REQUIRE_SHARED_LOCK = 4
};

typedef struct filestore_open_options {
    size_t size;
    uint32_t flags; /* of filestore_open_flag */
    int descriptor; /* an open folder, for a path that is NULL; the caller's, and not needed after
                     */
    double lock_seconds; /* how long a function waits for others; 0 tries once */
    uint32_t cost; /* of a guess of the password that creates a database: scrypt's N is 2 to it,
                      from 14 to 20; 0 for the usual one */
    const char* caches; /* a folder, of the user's alone and on a disk of this host, for files that
                           make a later call faster and may be deleted at any time: the index of a
                           database of over 10,000 records that cannot have it beside itself. NULL
                           for none */
    const filestore_callbacks* callbacks; /* of functions that take none; copied; may be NULL */
    const char* modules; /* the folder of the store's modules, by an absolute path; NULL: where
                            they are installed. Those that the process loads first stay: later
                            ones are not looked at */
} filestore_open_options;
#define FILESTORE_OPEN_OPTIONS_INIT \
    { sizeof(filestore_open_options), 0, -1, 10.0, 0, NULL, NULL, NULL }

/* A handle for the database in the folder `path`, or in the folder options->descriptor for NULL.
 * Reads nothing but the folder's own entry: that there is a database shows later. The folder may be
 * renamed while the handle is open. `options` may be NULL.
 *
 *   FILESTORE_MISSING     no such folder
 *   FILESTORE_INVALID     bad options, or neither path nor descriptor
 *   FILESTORE_NO_SERVICE  the store's modules cannot be loaded
 *   FILESTORE_CLOSED      see "Processes" above */
FILESTORE_API filestore_status filestore_open(const char* path,
                                              const filestore_open_options* options,
                                              filestore_db** db, filestore_error* error);

/* Wipes the handle's keys and gives its memory and descriptors back. NULL is allowed. */
FILESTORE_API void filestore_close(filestore_db* db);

enum filestore_key_kind {
    /* What a person typed: a password, from which deriving the key takes half a second, or a
     * recovery key. */
    FILESTORE_PASSWORD = 1,
    FILESTORE_RAW_KEY = 2, /* what filestore_copy_key() gave; takes no derivation, as those below */
    FILESTORE_KEY_FILE = 3,    /* what is in a file of `fstore key add --key-file` */
    FILESTORE_RECOVERY_KEY = 4 /* as it is written down, in either case of letters */
};

/* A password or key, from exactly one of three places: bytes of the caller's, a file, or a
 * callback. One line feed at its end is dropped; it may not be empty, contain a NUL byte, or have
 * more than 4096 bytes. */
typedef struct filestore_key {
    size_t size;
    uint32_t kind;     /* of filestore_key_kind */
    uint32_t slot;     /* try this slot only; 0: whichever fits */
    const void* bytes; /* the caller's, who wipes them */
    size_t length;
    const char* path; /* a file that has it and nothing else; a relative name begins at the
                       * process's folder */
    /* Writes it into `buffer`, memory of the library that is wiped after use, sets `length`, and
     * returns 0; otherwise the answer is FILESTORE_USAGE. Called while nothing is locked, and not
     * called when it is not needed. */
    int (*fill)(void* user, char* buffer, size_t capacity, size_t* length);
    void* user;
    /* filestore_unlock() writes the number of the slot that opened here; 0 for a raw key, and for a
     * database from before there were slots. May be NULL. */
    uint32_t* opened;
} filestore_key;
#define FILESTORE_KEY_INIT \
    { sizeof(filestore_key), FILESTORE_PASSWORD, 0, NULL, 0, NULL, NULL, NULL, NULL }

/* Makes encrypted parts readable through this handle, until filestore_lock() or a change of the
 * password by somebody else. Also when it is unlocked. If a change of the password was interrupted
 * after it took effect, finishes it first, which takes as long as a change.
 *
 * With FILESTORE_CREATE, and a password: creates the database if there is none, with this password;
 * one without records and password gets it.
 *
 *   FILESTORE_WRONG_PASSWORD  it opens no slot, or not that of key->slot; nothing has changed
 *   FILESTORE_MISSING         there is no database, or no such file
 *   FILESTORE_USAGE           fill() returned something else than 0
 *   FILESTORE_MALFORMED       what was given is no key file, or a damaged one
 *   FILESTORE_NO_DIGEST, FILESTORE_MALFORMED  the records of the password are damaged */
FILESTORE_API filestore_status filestore_unlock(filestore_db* db, const filestore_key* key,
                                                const filestore_callbacks* callbacks,
                                                filestore_error* error);

/* Wipes the handle's keys; plain parts can still be read. */
FILESTORE_API void filestore_lock(filestore_db* db);

/* Whether the handle has a key: 1 or 0. Whether that still is the database's shows when it is used.
 */
FILESTORE_API int filestore_is_unlocked(filestore_db* db);

/* A copy of the key that the handle was unlocked with, for FILESTORE_RAW_KEY of another handle or
 * process. It opens the database as the password does, until that is changed. To be given back with
 * filestore_free(). FILESTORE_NOT_OPEN if the handle is not unlocked. */
FILESTORE_API filestore_status filestore_copy_key(filestore_db* db, void** key, size_t* length,
                                                  filestore_error* error);

/* Wipes and gives back a block that the library handed out. NULL is allowed. */
FILESTORE_API void filestore_free(void* block);

/* ---- Records ---- */

/* What a record is. */
enum filestore_kind {
    FILESTORE_UNKNOWN = 0,
    FILESTORE_CERTIFICATE = 1,
    FILESTORE_CRL = 2,
    FILESTORE_PRIVATE_KEY = 3,
    FILESTORE_REQUEST = 4,
    FILESTORE_RAW = 5 /* bytes that filestore_put() stored */
};

/* The types of attributes. */
enum filestore_attribute_type {
    FILESTORE_NUMBER = 1, /* 32 bits, in the machine's order of bytes */
    FILESTORE_BINARY = 2,
    FILESTORE_STRING = 3, /* ends with a NUL, which counts */
    FILESTORE_TEXT = 4    /* without NUL or line feed, and not beginning with a blank */
};

/* Ids of attributes. Those from FILESTORE_FIRST_USER_ID on are the caller's; of those below only
 * the label may be set. */
enum filestore_attribute_id {
    FILESTORE_ID_LABEL = 0x102,
    FILESTORE_ID_SHA256 = 0x109,
    FILESTORE_FIRST_USER_ID = 0x8000
};

/* A record in memory: what filestore_get() has read, or what filestore_put() is to write. A
 * snapshot: it does not change when the database does. */
typedef struct filestore_record filestore_record;

/* What the attributes say. Texts are never NULL, but empty where the record has no such attribute
 * or it cannot be read yet; they live as long as what they were asked of. */
typedef struct filestore_info {
    size_t size;
    const char* address; /* "certificates/local/server" */
    const char* folder;  /* "certificates/local" */
    const char* name;    /* "server" */
    uint32_t kind;       /* of filestore_kind */
    uint32_t flags;      /* of filestore_info_flag */
    uint64_t body_size;  /* as it is on disk */
    int64_t not_before;  /* seconds since 1970 in UTC */
    int64_t not_after;
    const char* label;
    const char* subject; /* as RFC 4514 writes it */
    const char* issuer;
    const char* key_algorithm;    /* "RSA-2048", "EC-P-256", "Ed25519" */
    const char* serial;           /* hexadecimal digits, as all digests */
    const char* sha256;           /* of the body in plain form */
    const char* key_sha256;       /* of the public key */
    const char* const* alt_names; /* "DNS:example.com"; alt_name_count of them */
    size_t alt_name_count;
    uint32_t outcome; /* in the result of an import: of filestore_outcome; otherwise 0 */
} filestore_info;
#define FILESTORE_INFO_INIT                                                                    \
    {                                                                                          \
        sizeof(filestore_info), NULL, NULL, NULL, 0, 0, 0, 0, 0, NULL, NULL, NULL, NULL, NULL, \
            NULL, NULL, NULL, 0, 0                                                             \
    }

enum filestore_info_flag {
    FILESTORE_HAS_BODY = 1,
    FILESTORE_BODY_ENCRYPTED = 2, /* on disk */
    FILESTORE_IS_CA = 4,
    FILESTORE_HAS_NOT_BEFORE = 8,
    FILESTORE_HAS_NOT_AFTER = 16,
    FILESTORE_READABLE = 32 /* nothing of the record is still encrypted */
};

enum filestore_get_flag {
    FILESTORE_PLAIN_ONLY =
        1, /* decrypt nothing: encrypted parts stay unreadable, and no key is needed */
    FILESTORE_NO_BODY = 2 /* without the body, which is not opened */
};

/* Reads the record that `address` means, decrypts it if something of it is encrypted, and compares
 * its body with the digest that it has. `flags` are of filestore_get_flag. The record is given back
 * with filestore_record_free().
 *
 *   FILESTORE_MISSING    there is no such record, or no database
 *   FILESTORE_INVALID    several records are meant, or the address cannot be one
 *   FILESTORE_NOT_OPEN   it has encrypted parts, and the handle is not unlocked (any more)
 *   FILESTORE_MALFORMED  the record is damaged, or its body is not the one that belongs to it
 *   FILESTORE_IO         it does not decrypt */
FILESTORE_API filestore_status filestore_get(filestore_db* db, const char* address, uint32_t flags,
                                             filestore_record** record, filestore_error* error);

/* An empty record for filestore_put(), of kind FILESTORE_RAW. `address` is folder and name:
 * "settings/a". */
FILESTORE_API filestore_status filestore_record_new(const char* address, filestore_record** record,
                                                    filestore_error* error);

/* Wipes it. NULL is allowed. */
FILESTORE_API void filestore_record_free(filestore_record* record);

/* What is known of the record, up to info->size bytes. The texts live as long as the record, and
 * until it is put. */
FILESTORE_API filestore_status filestore_record_info(const filestore_record* record,
                                                     filestore_info* info);

/* Folder and name, as addresses are written. Never NULL. */
FILESTORE_API const char* filestore_record_address(const filestore_record* record);

/* The body in plain form, and its size; NULL and 0 if the record has none or it was not read. An
 * empty body is not NULL. Lives as long as the record, and until the next call that sets or puts
 * it. */
FILESTORE_API const void* filestore_record_body(const filestore_record* record, size_t* size);

typedef struct filestore_attribute {
    size_t size;
    uint32_t type; /* of filestore_attribute_type */
    uint32_t id;
    uint32_t flags;    /* of filestore_attribute_flag */
    const void* bytes; /* NULL while it cannot be read; live as the body does */
    size_t length;
} filestore_attribute;
#define FILESTORE_ATTRIBUTE_INIT \
    { sizeof(filestore_attribute), 0, 0, 0, NULL, 0 }

enum filestore_attribute_flag { FILESTORE_ENCRYPTED = 1 /* on disk */ };

FILESTORE_API size_t filestore_record_attribute_count(const filestore_record* record);

/* The attribute at `index`, from 0. FILESTORE_NOT_FOUND beyond the last one. */
FILESTORE_API filestore_status filestore_record_attribute(const filestore_record* record,
                                                          size_t index,
                                                          filestore_attribute* attribute);

/* The first attribute of this type and id. FILESTORE_NOT_FOUND when there is none that can be read.
 */
FILESTORE_API filestore_status filestore_record_find_attribute(const filestore_record* record,
                                                               uint32_t type, uint32_t id,
                                                               filestore_attribute* attribute);

enum filestore_put_flag {
    FILESTORE_PLAIN = 1, /* of a body: do not encrypt it */
    FILESTORE_NEW = 2    /* of filestore_put(): there must be no such record yet */
};

/* These change the record in memory only, and what they set is what filestore_put() writes. Bytes
 * are copied. A failure changes nothing. */

/* The body, to be encrypted unless `flags` has FILESTORE_PLAIN. An empty body cannot be stored in
 * plain form. FILESTORE_INVALID for more bytes than a record can hold (4 GiB). */
FILESTORE_API filestore_status filestore_record_set_body(filestore_record* record,
                                                         const void* bytes, size_t size,
                                                         uint32_t flags, filestore_error* error);

/* The attribute with this id, instead of all that the record has with it. With FILESTORE_ENCRYPTED
 * in `flags`, or if the record keeps one with this id encrypted, it is stored as FILESTORE_BINARY
 * and encrypted. A text or string that is empty is removed.
 *
 *   FILESTORE_INVALID    an id that is not the caller's to set; a number that has not 4 bytes; a
 * bad type FILESTORE_MALFORMED  a text that a record cannot hold (at the latest by filestore_put())
 */
FILESTORE_API filestore_status filestore_record_set_attribute(filestore_record* record,
                                                              uint32_t type, uint32_t id,
                                                              const void* bytes, size_t length,
                                                              uint32_t flags,
                                                              filestore_error* error);

/* Removes all attributes with this id. FILESTORE_NOT_FOUND when there is none. */
FILESTORE_API filestore_status filestore_record_remove_attribute(filestore_record* record,
                                                                 uint32_t id,
                                                                 filestore_error* error);

/* Writes what was set since the record was made, read or put, and leaves everything else of the
 * record as it is on disk now: of two who change different attributes of one record both succeed. A
 * record that is not there is created, if the one in memory is new; one that is there gets the new
 * body, which then must be of kind FILESTORE_RAW. `flags` may be FILESTORE_NEW. What was written is
 * durable when this returns FILESTORE_OK, and read back before if something of it is encrypted; the
 * record then is as it was written.
 *
 *   FILESTORE_INVALID    there is such a record and `flags` has FILESTORE_NEW; a body for a
 * certificate, key, CRL or request; a record of the password; a handle for reading only
 *   FILESTORE_MISSING    no such folder in the database; a record that was read is not there any
 * more FILESTORE_NOT_OPEN   something of it is encrypted, and the handle is not unlocked (any more)
 *   FILESTORE_MALFORMED  a text that cannot be stored; or the present body may be another record's
 * After any failure to write the record on disk is as it was before. */
FILESTORE_API filestore_status filestore_put(filestore_db* db, filestore_record* record,
                                             uint32_t flags, filestore_error* error);

/* Removes the record that `address` means; a key, too, without asking. If its body may be another
 * record's, the body file stays, and the handle's warn() says so. FILESTORE_MISSING when it is not
 * there. */
FILESTORE_API filestore_status filestore_remove(filestore_db* db, const char* address,
                                                filestore_error* error);

/* Gives the record another folder, another name, or both; nothing is replaced. If the process dies
 * in between, the record is there under both names. FILESTORE_INVALID if `to` is taken or is not
 * folder and name. */
FILESTORE_API filestore_status filestore_rename(filestore_db* db, const char* from, const char* to,
                                                filestore_error* error);

/* ---- Finding ---- */

/* Records that were found or imported, and what could not be looked at. */
typedef struct filestore_list filestore_list;

enum filestore_find_flag {
    FILESTORE_FIND_EXPIRED = 1,
    FILESTORE_FIND_WITH_KEY = 2,    /* whose private key the database has */
    FILESTORE_FIND_WITHOUT_KEY = 4, /* whose private key it has not */
    FILESTORE_FIND_SECRETS = 8      /* look at encrypted parts, too: the handle is unlocked */
};

enum filestore_order { FILESTORE_BY_NAME = 0, FILESTORE_BY_EXPIRY = 1, FILESTORE_BY_SUBJECT = 2 };

/* All conditions that are given must hold. Patterns may have * and ?, and small letters stand for
 * capitals, too. */
typedef struct filestore_find_options {
    size_t size;
    uint32_t flags;             /* of filestore_find_flag */
    uint32_t order;             /* of filestore_order */
    const char* folder;         /* with the folders in it; NULL: the whole database */
    const char* expires_within; /* "30d", "12h" */
    const char* subject;        /* patterns */
    const char* issuer;
    const char* alt_name;
    const char* serial; /* hexadecimal digits */
    const char* sha256; /* the first of them */
    const char* algorithm;
    const char* const* attributes; /* "0x8001" or "0x8001=VALUE"; attribute_count of them */
    size_t attribute_count;
    const filestore_callbacks* callbacks; /* NULL: those of the handle */
} filestore_find_options;
#define FILESTORE_FIND_OPTIONS_INIT                                                           \
    {                                                                                         \
        sizeof(filestore_find_options), 0, 0, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, \
            NULL, 0, NULL                                                                     \
    }

/* The records that pass the filters; all for NULL. The list is handed out with three of the
 * answers:
 *
 *   FILESTORE_OK       all that there are
 *   FILESTORE_FOUND    some records are damaged: filestore_list_problem()
 *   FILESTORE_PARTIAL  some records or folders could not be looked at, and none is damaged
 *   FILESTORE_USAGE        a filter cannot be read
 *   FILESTORE_MISSING      no such folder, or no database
 *   FILESTORE_INTERRUPTED  cancelled: cancelled() is asked at each record, also by threads that the
 *                          library starts, several at once */
FILESTORE_API filestore_status filestore_find(filestore_db* db,
                                              const filestore_find_options* options,
                                              filestore_list** list, filestore_error* error);

/* What a URI stands for. */
enum filestore_uri_kind {
    FILESTORE_URI_RECORD = 1, /* fstore:///certificates/local/server: an address */
    FILESTORE_URI_FOLDER = 2, /* fstore:///certificates/local, which is no record's address */
    FILESTORE_URI_HOST = 3    /* fstore:///?for=www.example.com&type=key: what serves a host */
};

/* The records that a URI stands for; `kind`, of filestore_uri_kind, may be NULL. In addresses, what
 * a URI cannot hold is written as % and two hexadecimal digits.
 *
 * What serves a host is chosen from the certificates in force whose names cover it, whose key is in
 * the database, and which no CRL in the database revokes: the name itself before a wildcard, then
 * the one that began last, then the one that ends last, then the one with the smaller digest.
 * "&type=key", "cert" or "chain" asks for the key, for the certificate, or for the certificate and
 * its issuers; without a type it is the key, the certificate and its issuers, in this order.
 * "&alg=EC*" is a pattern for the algorithm of the key: "RSA" finds "RSA-2048".
 *
 *   FILESTORE_OK         all that there are
 *   FILESTORE_PARTIAL    the same; but some records could not be read, and might be among them:
 *                        filestore_list_problem(). The list is handed out
 *   FILESTORE_MISSING    no such record, folder or database; no certificate fits, and the message
 *                        says what those lack that nearly do
 *   FILESTORE_INVALID    not such a URI; several records are meant
 *   FILESTORE_NOT_OPEN   certificates or CRLs are encrypted, and the handle is not unlocked
 *   FILESTORE_MALFORMED  the certificate, or a CRL that may revoke it, is damaged */
FILESTORE_API filestore_status filestore_find_uri(filestore_db* db, const char* uri, uint32_t* kind,
                                                  filestore_list** list, filestore_error* error);

FILESTORE_API size_t filestore_list_count(const filestore_list* list);

/* The entry at `index`, from 0; its texts live as long as the list. FILESTORE_NOT_FOUND beyond the
 * last. */
FILESTORE_API filestore_status filestore_list_info(const filestore_list* list, size_t index,
                                                   filestore_info* info);

enum filestore_problem_kind {
    FILESTORE_DAMAGED = 1,
    FILESTORE_UNREAD = 2,  /* not allowed to be read, or too large to be looked at */
    FILESTORE_UNDATED = 3, /* when it expires is encrypted or damaged, and was asked for */
    FILESTORE_FAILED = 4,  /* of an import: this object could not be read or imported */
    FILESTORE_SKIPPED = 5  /* of an import: nothing that is stored */
};

typedef struct filestore_problem {
    size_t size;
    uint32_t kind; /* of filestore_problem_kind */
    filestore_status status;
    const char* path;    /* the record's address, or that of a folder; may be empty */
    const char* message; /* a sentence; may be empty */
    uint32_t line;       /* of an import: where in the input; 0 in a binary file */
} filestore_problem;
#define FILESTORE_PROBLEM_INIT \
    { sizeof(filestore_problem), 0, FILESTORE_OK, NULL, NULL, 0 }

FILESTORE_API size_t filestore_list_problem_count(const filestore_list* list);

/* As filestore_list_info(). */
FILESTORE_API filestore_status filestore_list_problem(const filestore_list* list, size_t index,
                                                      filestore_problem* problem);

/* Wipes it. NULL is allowed. */
FILESTORE_API void filestore_list_free(filestore_list* list);

/* ---- Certificates, keys, CRLs and requests ---- */

enum filestore_import_flag {
    FILESTORE_IMPORT_REPLACE = 1, /* overwrite what is there */
    FILESTORE_IMPORT_ENCRYPT = 2  /* everything, as keys always are */
};

/* What became of an object. */
enum filestore_outcome {
    FILESTORE_ADDED = 1,
    FILESTORE_PRESENT = 2, /* it was there, and nothing has changed */
    FILESTORE_MOVED = 3,   /* a certificate that was there, and whose key has come */
    FILESTORE_REPLACED = 4
};

typedef struct filestore_import_options {
    size_t size;
    uint32_t flags;     /* of filestore_import_flag */
    const char* folder; /* for all objects; NULL: by what they are */
    const char* name;   /* of one object, or of one key and what belongs to it; NULL: made up */
    const char* label;  /* NULL: the file's own */
    const filestore_key* password; /* of encrypted input, of kind FILESTORE_PASSWORD; may be NULL */
} filestore_import_options;
#define FILESTORE_IMPORT_OPTIONS_INIT \
    { sizeof(filestore_import_options), 0, NULL, NULL, NULL, NULL }

/* Imports the objects in these bytes: PEM with any number of them, one in DER, or PKCS#12, up to 64
 * MiB. `options` may be NULL, and so may `list`. The list has what became of each object, and is
 * handed out with the first two answers. What is there encrypted is recognised while the handle is
 * unlocked.
 *
 *   FILESTORE_OK              all of them
 *   FILESTORE_PARTIAL         some; the others are problems of the list
 *   FILESTORE_WRONG_PASSWORD  nothing could be decrypted
 *   FILESTORE_MALFORMED       nothing that can be imported
 *   FILESTORE_NOT_OPEN        a key among them, and the handle is not unlocked; or the password was
 *                             changed since it was
 * What was imported before a failure stays. */
FILESTORE_API filestore_status filestore_import(filestore_db* db, const void* bytes, size_t size,
                                                const filestore_import_options* options,
                                                filestore_list** list,
                                                const filestore_callbacks* callbacks,
                                                filestore_error* error);

enum filestore_format { FILESTORE_PEM = 0, FILESTORE_DER = 1, FILESTORE_PKCS12 = 2 };

enum filestore_export_flag {
    FILESTORE_EXPORT_CHAIN = 1, /* with the issuers, up to the root */
    FILESTORE_EXPORT_PLAIN = 2  /* do not encrypt a key or PKCS#12 */
};

typedef struct filestore_export_options {
    size_t size;
    uint32_t flags;                /* of filestore_export_flag */
    uint32_t format;               /* of filestore_format */
    const filestore_key* password; /* for what is exported encrypted, of kind FILESTORE_PASSWORD */
} filestore_export_options;
#define FILESTORE_EXPORT_OPTIONS_INIT \
    { sizeof(filestore_export_options), 0, FILESTORE_PEM, NULL }

/* The object that `address` means, for other programs. `bytes` is given back with filestore_free().
 * `options` may be NULL, which encrypts no key and so exports none.
 *
 *   FILESTORE_INVALID  the record is no certificate, key, CRL or request, or has no such format
 *   FILESTORE_USAGE    it is to be encrypted, and there is no password
 * and as filestore_get(). A chain that ends before a root is a warning. */
FILESTORE_API filestore_status filestore_export(filestore_db* db, const char* address,
                                                const filestore_export_options* options,
                                                void** bytes, size_t* size,
                                                const filestore_callbacks* callbacks,
                                                filestore_error* error);

/* ---- The database as a whole ---- */

/* What a check has found. The texts live during the call that reports it. */
typedef struct filestore_finding {
    size_t size;
    uint32_t flags;     /* of filestore_finding_flag */
    const char* kind;   /* a word: "unnamed-body", "damaged", ... as `fstore check --json` has it */
    const char* repair; /* what a repair does or did: "delete", "move-away", ...; "none" */
    const char* path;
    const char* message; /* a sentence without the path */
} filestore_finding;

enum filestore_finding_flag {
    FILESTORE_IS_DAMAGE = 1,
    FILESTORE_IS_UNREAD = 2,     /* it could not be examined */
    FILESTORE_IS_REPAIRABLE = 4, /* by FILESTORE_CHECK_REPAIR */
    FILESTORE_IS_REPAIRED = 8
};

enum filestore_check_flag {
    FILESTORE_CHECK_DEEP = 1,  /* also decrypt and compare everything: the handle is unlocked */
    FILESTORE_CHECK_REPAIR = 2 /* clean up after a crash; never touches what is damaged */
};

typedef struct filestore_check_options {
    size_t size;
    uint32_t flags; /* of filestore_check_flag */
    /* Called for each finding, when the check is done. `finding` is NULL for none. */
    void (*finding)(void* user, const filestore_finding* finding);
    void* user;
} filestore_check_options;
#define FILESTORE_CHECK_OPTIONS_INIT \
    { sizeof(filestore_check_options), 0, NULL, NULL }

/* Whether the database is sound.
 *
 *   FILESTORE_OK       nothing is damaged, and all could be read
 *   FILESTORE_FOUND    something is damaged
 *   FILESTORE_PARTIAL  not all could be looked at; what was is not damaged */
FILESTORE_API filestore_status filestore_check(filestore_db* db,
                                               const filestore_check_options* options,
                                               const filestore_callbacks* callbacks,
                                               filestore_error* error);

enum filestore_change_flag {
    FILESTORE_KEEP_OLD = 1 /* keep the database with the old password as ./db-<time> */
};

/* Gives the database another password, and encrypts everything again. The handle is unlocked, and
 * stays so; other handles and processes have to unlock again. `cost` as in filestore_open_options.
 * A database without a password needs no unlocking. Wherever it is interrupted, one of the two
 * passwords opens all of the database.
 *
 *   FILESTORE_INVALID      it has slots besides the password's; for `fstore passwd`
 *   FILESTORE_FOUND        a record is damaged or cannot be read; nothing has changed
 *   FILESTORE_INTERRUPTED  cancelled: the old password is in force, unless the last part,
 * "Verifying", had begun; then the new one is, and the next filestore_unlock() finishes the change
 */
FILESTORE_API filestore_status filestore_change_password(filestore_db* db,
                                                         const filestore_key* password,
                                                         uint32_t flags, uint32_t cost,
                                                         const filestore_callbacks* callbacks,
                                                         filestore_error* error);

enum filestore_archive_flag {
    FILESTORE_REPLACE =
        1 /* a file that is there; of a restore: a database, which is kept as ./db-<time> */
};

/* Writes the database into one file, a tar archive, as it is, damaged or not; encrypted parts stay
 * encrypted, and no password is needed. The file is complete and durable, or as it was before. A
 * relative name begins at the process's folder.
 *
 *   FILESTORE_INVALID  the file exists, and `flags` has not FILESTORE_REPLACE; it is a folder or a
 * link FILESTORE_PARTIAL  the file is written, without what it cannot hold: warn() says what
 *   FILESTORE_INTERRUPTED  cancelled: there is no file, or the one from before */
FILESTORE_API filestore_status filestore_backup(filestore_db* db, const char* file, uint32_t flags,
                                                const filestore_callbacks* callbacks,
                                                filestore_error* error);

/* Makes the database from such a file. Reads all of it before it writes, and moves a database that
 * is there aside only when the new one is complete and durable. The handle is locked afterwards:
 * the password is the one of the backup.
 *
 *   FILESTORE_INVALID    there is a database, and `flags` has not FILESTORE_REPLACE
 *   FILESTORE_MALFORMED  the file is not a whole backup
 *   FILESTORE_INTERRUPTED  cancelled: nothing has changed */
FILESTORE_API filestore_status filestore_restore(filestore_db* db, const char* file, uint32_t flags,
                                                 const filestore_callbacks* callbacks,
                                                 filestore_error* error);

#ifdef __cplusplus
}
#endif

#endif /* CAPI_FILESTORE_H */
