# Test code signing. A throw-away PKI is made once per build folder in
# <build>/pki: a root CA (also as root.der for Windows' Root store) and two
# code-signing certificates, "Quorvane, Inc." and "Otherco Test Signer".
# zeph_sign_target(<target> SIGNER quorvane|other) signs the target's file
# after every link (Authenticode, sha256, no timestamp). Each folder that
# signs or trusts includes this file; including it again costs nothing.

set(ZEPH_PKI_DIR ${CMAKE_BINARY_DIR}/pki)
set(ZEPH_TEST_ROOT_DER ${ZEPH_PKI_DIR}/root.der)
# Wine's drive Z: is the Unix root.
string(REPLACE "/" "\\" ZEPH_TEST_ROOT_DER_WINDOWS "Z:${ZEPH_TEST_ROOT_DER}")

find_program(OPENSSL openssl REQUIRED)
find_program(OSSLSIGNCODE osslsigncode REQUIRED)

if(NOT EXISTS ${ZEPH_PKI_DIR}/other.crt)
    execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/make-test-pki.sh ${OPENSSL} ${ZEPH_PKI_DIR}
                    RESULT_VARIABLE pki_result)
    if(NOT pki_result EQUAL 0)
        message(FATAL_ERROR "Making the test PKI in ${ZEPH_PKI_DIR} failed")
    endif()
endif()

function(zeph_sign_target target)
    cmake_parse_arguments(SIGN "" "SIGNER" "" ${ARGN})
    if(NOT SIGN_SIGNER MATCHES "^(quorvane|other)$")
        message(FATAL_ERROR "zeph_sign_target(${target}): SIGNER must be quorvane or other")
    endif()
    add_custom_command(TARGET ${target} POST_BUILD
        COMMAND ${CMAKE_COMMAND} -E env OSSLSIGNCODE=${OSSLSIGNCODE}
                ${PROJECT_SOURCE_DIR}/cmake/sign-file.sh ${ZEPH_PKI_DIR}/${SIGN_SIGNER}
                $<TARGET_FILE:${target}>
        VERBATIM)
endfunction()
