/* SPDX-License-Identifier: Apache-2.0 */
/*
 * Keeps notes that nobody else can read, through libfilestore.
 *
 *     notes FOLDER PASSWORD_FILE NAME [TEXT]
 *
 * Stores TEXT under NAME, or prints what is stored there. The database is made where there is none.
 *
 *     cc notes.c $(pkg-config --cflags --libs filestore-c) -o notes
 */
#include <stdio.h>
#include <string.h>

#include <filestore/filestore.h>

static int fail(const filestore_error *error) {
    fprintf(stderr, "notes: %s\n", error->message);
    return error->status;
}

static filestore_status store(filestore_db *db, const char *address, const char *text,
                              filestore_error *error) {
    filestore_record *record = NULL;
    filestore_status status = filestore_record_new(address, &record, error);
    if (status == FILESTORE_OK) {
        status = filestore_record_set_body(record, text, strlen(text), 0, error);
    }
    if (status == FILESTORE_OK) {
        status = filestore_put(db, record, 0, error);
    }
    filestore_record_free(record);
    return status;
}

static filestore_status print(filestore_db *db, const char *address, filestore_error *error) {
    filestore_record *record = NULL;
    const filestore_status status = filestore_get(db, address, 0, &record, error);
    if (status == FILESTORE_OK) {
        size_t size = 0;
        const void *const body = filestore_record_body(record, &size);
        fwrite(body, 1, size, stdout);
        putchar('\n');
    }
    filestore_record_free(record); /* wipes the note */
    return status;
}

int main(int argc, char **argv) {
    filestore_error error = FILESTORE_ERROR_INIT;
    filestore_open_options options = FILESTORE_OPEN_OPTIONS_INIT;
    filestore_key key = FILESTORE_KEY_INIT;
    filestore_db *db = NULL;
    filestore_status status;
    char address[256];
    if (argc < 4 || argc > 5) {
        fprintf(stderr, "usage: notes FOLDER PASSWORD_FILE NAME [TEXT]\n");
        return FILESTORE_USAGE;
    }
    snprintf(address, sizeof address, "settings/%s", argv[3]);
    options.flags = FILESTORE_CREATE;
    key.path = argv[2];
    status = filestore_open(argv[1], &options, &db, &error);
    if (status == FILESTORE_OK) {
        status = filestore_unlock(db, &key, NULL, &error);
    }
    if (status == FILESTORE_OK) {
        status = argc == 5 ? store(db, address, argv[4], &error) : print(db, address, &error);
    }
    filestore_close(db); /* wipes the key */
    return status == FILESTORE_OK ? 0 : fail(&error);
}
