// OpenSSL, loaded when the agent first encrypts, reads a certificate or
// secures a mail connection, not at start: an agent that only watches folders
// never needs it, and mapping it costs every running agent almost 2 MB of
// resident pages.
//
// Files that use OpenSSL include this header after nothing else of OpenSSL's
// and call MVLoadOpenSSL() before the first OpenSSL call of an operation;
// past that, the library's own names (and its macros, which expand to its
// functions) call through the loaded library.
#pragma once

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <string.h>

#include <cstddef>

#include "LazyLibrary.h"

// Every OpenSSL function the agent calls, including those its macros expand to.
#define MV_OPENSSL_FUNCTIONS(X)                                                                               \
  X(CRYPTO_free) X(ERR_clear_error) X(ERR_error_string_n) X(ERR_peek_error) X(ERR_peek_last_error)           \
  X(EVP_CIPHER_CTX_free) X(EVP_CIPHER_CTX_new) X(EVP_CIPHER_CTX_set_padding) X(EVP_CipherInit_ex)             \
  X(EVP_CipherUpdate) X(EVP_aes_128_ecb) X(EVP_aes_192_ecb) X(EVP_aes_256_ecb)                                \
  X(d2i_X509) X(X509_free) X(X509_get_subject_name) X(X509_NAME_get_index_by_NID) X(X509_NAME_get_entry)      \
  X(X509_NAME_ENTRY_get_data) X(ASN1_STRING_to_UTF8) X(X509_VERIFY_PARAM_set1_ip_asc)                         \
  X(X509_verify_cert_error_string) X(BIO_new) X(BIO_meth_new) X(BIO_meth_set_create) X(BIO_meth_set_ctrl)     \
  X(BIO_meth_set_read) X(BIO_meth_set_write) X(BIO_get_new_index) X(BIO_get_data) X(BIO_set_data)            \
  X(BIO_set_init) X(BIO_set_flags) X(BIO_clear_flags) X(TLS_client_method) X(SSL_CTX_new) X(SSL_CTX_free)     \
  X(SSL_CTX_ctrl) X(SSL_CTX_set_default_verify_paths) X(SSL_CTX_set_options) X(SSL_CTX_set_verify) X(SSL_new) \
  X(SSL_free) X(SSL_ctrl) X(SSL_set_bio) X(SSL_set_connect_state) X(SSL_set1_host) X(SSL_get0_param)          \
  X(SSL_do_handshake) X(SSL_get_error) X(SSL_get_verify_result) X(SSL_read) X(SSL_write) X(SSL_peek)          \
  X(SSL_pending) X(SSL_want) X(SSL_shutdown)

QUILLON_LAZY_FUNCTIONS(MVOpenSSLFunctions, MV_OPENSSL_FUNCTIONS);

extern quillon::LazyLibrary<MVOpenSSLFunctions> gMVOpenSSL;

// The library's functions, loading it on first use; null (and one line in
// the log saying why) when it cannot be loaded.
inline const MVOpenSSLFunctions* MVLoadOpenSSL() { return gMVOpenSSL.load(); }

// Wipes secrets without the library: the compiler may not drop this write.
inline void MVWipeMemory(void* bytes, std::size_t length) { explicit_bzero(bytes, length); }

#define CRYPTO_free QUILLON_LAZY_CALL(gMVOpenSSL, CRYPTO_free)
#define ERR_clear_error QUILLON_LAZY_CALL(gMVOpenSSL, ERR_clear_error)
#define ERR_error_string_n QUILLON_LAZY_CALL(gMVOpenSSL, ERR_error_string_n)
#define ERR_peek_error QUILLON_LAZY_CALL(gMVOpenSSL, ERR_peek_error)
#define ERR_peek_last_error QUILLON_LAZY_CALL(gMVOpenSSL, ERR_peek_last_error)
#define EVP_CIPHER_CTX_free QUILLON_LAZY_CALL(gMVOpenSSL, EVP_CIPHER_CTX_free)
#define EVP_CIPHER_CTX_new QUILLON_LAZY_CALL(gMVOpenSSL, EVP_CIPHER_CTX_new)
#define EVP_CIPHER_CTX_set_padding QUILLON_LAZY_CALL(gMVOpenSSL, EVP_CIPHER_CTX_set_padding)
#define EVP_CipherInit_ex QUILLON_LAZY_CALL(gMVOpenSSL, EVP_CipherInit_ex)
#define EVP_CipherUpdate QUILLON_LAZY_CALL(gMVOpenSSL, EVP_CipherUpdate)
#define EVP_aes_128_ecb QUILLON_LAZY_CALL(gMVOpenSSL, EVP_aes_128_ecb)
#define EVP_aes_192_ecb QUILLON_LAZY_CALL(gMVOpenSSL, EVP_aes_192_ecb)
#define EVP_aes_256_ecb QUILLON_LAZY_CALL(gMVOpenSSL, EVP_aes_256_ecb)
#define d2i_X509 QUILLON_LAZY_CALL(gMVOpenSSL, d2i_X509)
#define X509_free QUILLON_LAZY_CALL(gMVOpenSSL, X509_free)
#define X509_get_subject_name QUILLON_LAZY_CALL(gMVOpenSSL, X509_get_subject_name)
#define X509_NAME_get_index_by_NID QUILLON_LAZY_CALL(gMVOpenSSL, X509_NAME_get_index_by_NID)
#define X509_NAME_get_entry QUILLON_LAZY_CALL(gMVOpenSSL, X509_NAME_get_entry)
#define X509_NAME_ENTRY_get_data QUILLON_LAZY_CALL(gMVOpenSSL, X509_NAME_ENTRY_get_data)
#define ASN1_STRING_to_UTF8 QUILLON_LAZY_CALL(gMVOpenSSL, ASN1_STRING_to_UTF8)
#define X509_VERIFY_PARAM_set1_ip_asc QUILLON_LAZY_CALL(gMVOpenSSL, X509_VERIFY_PARAM_set1_ip_asc)
#define X509_verify_cert_error_string QUILLON_LAZY_CALL(gMVOpenSSL, X509_verify_cert_error_string)
#define BIO_new QUILLON_LAZY_CALL(gMVOpenSSL, BIO_new)
#define BIO_meth_new QUILLON_LAZY_CALL(gMVOpenSSL, BIO_meth_new)
#define BIO_meth_set_create QUILLON_LAZY_CALL(gMVOpenSSL, BIO_meth_set_create)
#define BIO_meth_set_ctrl QUILLON_LAZY_CALL(gMVOpenSSL, BIO_meth_set_ctrl)
#define BIO_meth_set_read QUILLON_LAZY_CALL(gMVOpenSSL, BIO_meth_set_read)
#define BIO_meth_set_write QUILLON_LAZY_CALL(gMVOpenSSL, BIO_meth_set_write)
#define BIO_get_new_index QUILLON_LAZY_CALL(gMVOpenSSL, BIO_get_new_index)
#define BIO_get_data QUILLON_LAZY_CALL(gMVOpenSSL, BIO_get_data)
#define BIO_set_data QUILLON_LAZY_CALL(gMVOpenSSL, BIO_set_data)
#define BIO_set_init QUILLON_LAZY_CALL(gMVOpenSSL, BIO_set_init)
#define BIO_set_flags QUILLON_LAZY_CALL(gMVOpenSSL, BIO_set_flags)
#define BIO_clear_flags QUILLON_LAZY_CALL(gMVOpenSSL, BIO_clear_flags)
#define TLS_client_method QUILLON_LAZY_CALL(gMVOpenSSL, TLS_client_method)
#define SSL_CTX_new QUILLON_LAZY_CALL(gMVOpenSSL, SSL_CTX_new)
#define SSL_CTX_free QUILLON_LAZY_CALL(gMVOpenSSL, SSL_CTX_free)
#define SSL_CTX_ctrl QUILLON_LAZY_CALL(gMVOpenSSL, SSL_CTX_ctrl)
#define SSL_CTX_set_default_verify_paths QUILLON_LAZY_CALL(gMVOpenSSL, SSL_CTX_set_default_verify_paths)
#define SSL_CTX_set_options QUILLON_LAZY_CALL(gMVOpenSSL, SSL_CTX_set_options)
#define SSL_CTX_set_verify QUILLON_LAZY_CALL(gMVOpenSSL, SSL_CTX_set_verify)
#define SSL_new QUILLON_LAZY_CALL(gMVOpenSSL, SSL_new)
#define SSL_free QUILLON_LAZY_CALL(gMVOpenSSL, SSL_free)
#define SSL_ctrl QUILLON_LAZY_CALL(gMVOpenSSL, SSL_ctrl)
#define SSL_set_bio QUILLON_LAZY_CALL(gMVOpenSSL, SSL_set_bio)
#define SSL_set_connect_state QUILLON_LAZY_CALL(gMVOpenSSL, SSL_set_connect_state)
#define SSL_set1_host QUILLON_LAZY_CALL(gMVOpenSSL, SSL_set1_host)
#define SSL_get0_param QUILLON_LAZY_CALL(gMVOpenSSL, SSL_get0_param)
#define SSL_do_handshake QUILLON_LAZY_CALL(gMVOpenSSL, SSL_do_handshake)
#define SSL_get_error QUILLON_LAZY_CALL(gMVOpenSSL, SSL_get_error)
#define SSL_get_verify_result QUILLON_LAZY_CALL(gMVOpenSSL, SSL_get_verify_result)
#define SSL_read QUILLON_LAZY_CALL(gMVOpenSSL, SSL_read)
#define SSL_write QUILLON_LAZY_CALL(gMVOpenSSL, SSL_write)
#define SSL_peek QUILLON_LAZY_CALL(gMVOpenSSL, SSL_peek)
#define SSL_pending QUILLON_LAZY_CALL(gMVOpenSSL, SSL_pending)
#define SSL_want QUILLON_LAZY_CALL(gMVOpenSSL, SSL_want)
#define SSL_shutdown QUILLON_LAZY_CALL(gMVOpenSSL, SSL_shutdown)
