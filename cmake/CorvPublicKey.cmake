# Embeds a P-256 public key (PEM, SubjectPublicKeyInfo) into a tiny static library that
# defines `kEmbeddedPublicKeyPem`. Configuration stops with a clear message when the file
# is missing or is not exactly the 178-character PEM of an EC P-256 key, so a
# vendor cannot ship an updater that trusts a key of the wrong shape.

# Every P-256 SubjectPublicKeyInfo starts with the same 27 DER bytes (SEQUENCE, id-ecPublicKey,
# prime256v1, BIT STRING, uncompressed point marker); this is their base64 text.
set(CORV_P256_SPKI_PREFIX "MFkwEwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAE")

function(corv_embed_public_key target key_file)
  if(NOT EXISTS "${key_file}" OR IS_DIRECTORY "${key_file}")
    message(FATAL_ERROR "CORV_PUBLIC_KEY_FILE: '${key_file}' does not exist or is not a file")
  endif()
  file(READ "${key_file}" pem)
  string(REPLACE "\r\n" "\n" pem "${pem}")
  string(LENGTH "${pem}" pem_length)
  set(line "[A-Za-z0-9+/=]")
  if(NOT pem MATCHES "^-----BEGIN PUBLIC KEY-----\n(${line}+\n)+-----END PUBLIC KEY-----\n$"
     OR NOT pem_length EQUAL 178)
    message(FATAL_ERROR "CORV_PUBLIC_KEY_FILE: '${key_file}' is not a PEM \"PUBLIC KEY\" block of an EC P-256 key "
                        "(expected 178 characters with LF line ends; create one with: openssl ec -in private.pem -pubout)")
  endif()
  string(FIND "${pem}" "${CORV_P256_SPKI_PREFIX}" prefix_at)
  if(NOT prefix_at EQUAL 27)
    message(FATAL_ERROR "CORV_PUBLIC_KEY_FILE: '${key_file}' holds a public key that is not on curve P-256 (prime256v1)")
  endif()
  set(CORV_EMBEDDED_PEM "${pem}")
  set(generated "${CMAKE_CURRENT_BINARY_DIR}/generated/${target}.cpp")
  configure_file("${CMAKE_CURRENT_FUNCTION_LIST_DIR}/embedded_public_key.cpp.in" "${generated}" @ONLY)
  add_library(${target} STATIC "${generated}")
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${key_file}")
endfunction()
