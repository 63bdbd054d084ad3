#import "SUSignature.h"
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

// Line breaks and blanks may stand anywhere; anything else that is not base64 makes it nil.
static NSData* decoded(NSString* base64) {
  NSMutableString* text = [NSMutableString string];
  for (NSString* part in [base64
           componentsSeparatedByCharactersInSet:[NSCharacterSet whitespaceAndNewlineCharacterSet]])
    [text appendString:part];
  const char* bytes = [text UTF8String];
  NSUInteger length = bytes ? strlen(bytes) : 0;
  if (length == 0 || length % 4 || length > 4096) return nil;
  NSMutableData* data = [NSMutableData dataWithLength:length / 4 * 3];
  int got = EVP_DecodeBlock([data mutableBytes], (const unsigned char*)bytes, (int)length);
  if (got < 0) return nil;
  if (bytes[length - 1] == '=') --got;
  if (bytes[length - 2] == '=') --got;
  [data setLength:(NSUInteger)got];
  return data;
}

static EVP_PKEY* newKey(NSString* pem) {
  NSData* data = [pem dataUsingEncoding:NSUTF8StringEncoding];
  BIO* bio = BIO_new_mem_buf([data bytes], (int)[data length]);
  EVP_PKEY* key = bio ? PEM_read_bio_PUBKEY(bio, NULL, NULL, NULL) : NULL;
  BIO_free(bio);
  return key;
}

// The OpenSSL of the systems that the framework runs on knows no other size.
static BOOL isKeyOfItsTime(EVP_PKEY* key) {
  BIGNUM* q = NULL;
  BOOL fits = EVP_PKEY_get_bn_param(key, "q", &q) == 1 && BN_num_bits(q) == 160;
  BN_free(q);
  return fits;
}

static BOOL verify(EVP_PKEY* key, NSData* signature, NSData* archive) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  BOOL good = EVP_Digest([archive bytes], [archive length], digest, &size, EVP_sha1(), NULL) == 1 &&
              EVP_DigestVerifyInit(context, NULL, EVP_sha1(), NULL, key) == 1 &&
              EVP_DigestVerify(context, [signature bytes], [signature length], digest, size) == 1;
  EVP_MD_CTX_free(context);
  return good;
}

NSString* SUSignatureProblem(NSData* archive, NSString* signature, NSString* pem) {
  if (!pem)
    return @"the program has no public key (dsa_pub.pem in its Resources), so nothing can be "
           @"verified";
  if (![signature length]) return @"the appcast gives no signature (sparkle:dsaSignature)";
  NSData* bytes = decoded(signature);
  if (!bytes) return @"the appcast's signature is no base64";

  NSString* problem = nil;
  EVP_PKEY* key = newKey(pem);
  if (!key || EVP_PKEY_get_base_id(key) != EVP_PKEY_DSA)
    problem = @"the program's public key is no DSA key in PEM form";
  else if (!isKeyOfItsTime(key))
    problem = @"the program's public key is not one of 160 bits (q)";
  else if (!verify(key, bytes, archive))
    problem = @"the signature is not that of the archive's digest";
  EVP_PKEY_free(key);
  // With the errors of this thread, which may not have come to its own end when the program ends.
  OPENSSL_thread_stop();
  return problem;
}
