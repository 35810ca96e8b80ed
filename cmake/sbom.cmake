# filestore.spdx.json in the build folder: a bill of materials in the format SPDX 2.3, of what is compiled
# into the tool and the libraries, and of the libraries that they load.
foreach(name CLI11 nlohmann_json fmt SQLite3)
    find_package(${name} REQUIRED)
endforeach()

# add_material(<name> <version> <licence> CONTAINS|DYNAMIC_LINK)
function(add_material name version licence relation)
    string(REGEX REPLACE "[^A-Za-z0-9.-]" "-" id ${name})
    string(APPEND materials [[,
    {
      "name": "@name@",
      "SPDXID": "SPDXRef-@id@",
      "versionInfo": "@version@",
      "downloadLocation": "NOASSERTION",
      "filesAnalyzed": false,
      "licenseConcluded": "@licence@",
      "licenseDeclared": "@licence@",
      "copyrightText": "NOASSERTION"
    }]])
    string(APPEND relations [[,
    {
      "spdxElementId": "SPDXRef-filestore",
      "relationshipType": "@relation@",
      "relatedSpdxElement": "SPDXRef-@id@"
    }]])
    string(CONFIGURE "${materials}" materials @ONLY)
    string(CONFIGURE "${relations}" relations @ONLY)
    set(materials "${materials}" PARENT_SCOPE)
    set(relations "${relations}" PARENT_SCOPE)
endfunction()
add_material(CLI11 "${CLI11_VERSION}" BSD-3-Clause CONTAINS)
add_material(nlohmann-json "${nlohmann_json_VERSION}" MIT CONTAINS)
add_material(fmt "${fmt_VERSION}" MIT CONTAINS)
add_material(OpenSSL "${OPENSSL_VERSION}" Apache-2.0 DYNAMIC_LINK)
add_material(SQLite "${SQLite3_VERSION}" blessing DYNAMIC_LINK)
file(STRINGS debian/control homepage LIMIT_COUNT 1 REGEX "^Homepage: ")
string(REPLACE "Homepage: " "" FILESTORE_HOMEPAGE "${homepage}")
configure_file(cmake/filestore.spdx.json.in ${PROJECT_BINARY_DIR}/filestore.spdx.json @ONLY)
