/* Somebody else's program in C: keeps a note in ./notes, and reads it back. */
#include <stdio.h>
#include <string.h>

#include <filestore/filestore.h>

static const char kNote[] = "kept";

static filestore_status keep(filestore_db* db, filestore_error* error) {
    filestore_record* record = NULL;
    filestore_status status = filestore_record_new("settings/note", &record, error);
    if (status == FILESTORE_OK) {
        status = filestore_record_set_body(record, kNote, strlen(kNote), 0, error);
    }
    if (status == FILESTORE_OK) {
        status = filestore_put(db, record, 0, error);
    }
    filestore_record_free(record);
    return status;
}

static filestore_status print(filestore_db* db, filestore_error* error) {
    filestore_record* record = NULL;
    const filestore_status status = filestore_get(db, "note", 0, &record, error);
    if (status == FILESTORE_OK) {
        size_t size = 0;
        const char* const body = filestore_record_body(record, &size);
        printf("%.*s\n", (int)size, body);
    }
    filestore_record_free(record);
    return status;
}

int main(void) {
    filestore_error error = FILESTORE_ERROR_INIT;
    filestore_open_options options = FILESTORE_OPEN_OPTIONS_INIT;
    filestore_key key = FILESTORE_KEY_INIT;
    filestore_db* db = NULL;
    filestore_status status;
    options.flags = FILESTORE_CREATE;
    options.cost = 14;
    key.bytes = "secret";
    key.length = strlen("secret");
    status = filestore_open("notes", &options, &db, &error);
    if (status == FILESTORE_OK) {
        status = filestore_unlock(db, &key, NULL, &error);
    }
    if (status == FILESTORE_OK) {
        status = keep(db, &error);
    }
    if (status == FILESTORE_OK) {
        status = print(db, &error);
    }
    filestore_close(db);
    if (status != FILESTORE_OK) {
        fprintf(stderr, "%s\n", error.message);
    }
    return status;
}
