#import "SUSignature.h"
#include <openssl/bio.h>
#include <openssl/err.h>
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

static BOOL verify(EVP_PKEY* key, NSData* signature, NSFileHandle* file) {
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  BOOL good = context && EVP_DigestVerifyInit(context, NULL, EVP_sha1(), NULL, key) == 1;
  for (BOOL more = YES; good && more;) {
    @autoreleasepool {
      NSData* block = [file readDataOfLength:1 << 16];
      more = [block length] > 0;
      if (more) good = EVP_DigestVerifyUpdate(context, [block bytes], [block length]) == 1;
    }
  }
  good = good && EVP_DigestVerifyFinal(context, [signature bytes], [signature length]) == 1;
  EVP_MD_CTX_free(context);
  return good;
}

NSString* SUSignatureProblem(NSString* path, NSString* signature, NSString* pem) {
  if (!pem)
    return @"the program has no public key (dsa_pub.pem in its Resources), so nothing can be "
           @"verified";
  if (![signature length]) return @"the appcast gives no signature (sparkle:dsaSignature)";
  NSData* bytes = decoded(signature);
  if (!bytes) return @"the appcast's signature is no base64";
  NSFileHandle* file = [NSFileHandle fileHandleForReadingAtPath:path];
  if (!file) return [NSString stringWithFormat:@"%@ cannot be read", path];

  NSString* problem = nil;
  EVP_PKEY* key = newKey(pem);
  if (!key || EVP_PKEY_get_base_id(key) != EVP_PKEY_DSA)
    problem = @"the program's public key is no DSA key in PEM form";
  else if (!verify(key, bytes, file))
    problem = @"the signature is not that of the archive";
  EVP_PKEY_free(key);
  ERR_clear_error();
  [file closeFile];
  return problem;
}
