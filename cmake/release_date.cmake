# FILESTORE_EPOCH: the time that stands in what is built, in seconds since 1970, and FILESTORE_DAY: that
# of SOURCE_DATE_EPOCH, or else of the newest release in CHANGELOG.md. Two builds of the same sources
# are the same, whenever they are made.
if(DEFINED ENV{SOURCE_DATE_EPOCH})
    set(FILESTORE_EPOCH $ENV{SOURCE_DATE_EPOCH})
else()
    file(STRINGS ${PROJECT_SOURCE_DIR}/CHANGELOG.md released LIMIT_COUNT 1
         REGEX "^## [0-9.]+, [0-9]+-[0-9]+-[0-9]+$")
    if(NOT released)
        message(FATAL_ERROR "CHANGELOG.md names no release with its date, as in \"## 1.0.0, 2030-01-31\"")
    endif()
    string(REGEX REPLACE ".*, " "" day "${released}")
    execute_process(COMMAND date -u -d ${day} +%s OUTPUT_VARIABLE FILESTORE_EPOCH
                    OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
endif()
execute_process(COMMAND date -u -d @${FILESTORE_EPOCH} +%Y-%m-%dT%H:%M:%SZ OUTPUT_VARIABLE FILESTORE_DAY
                OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
