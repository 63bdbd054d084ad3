// The signature of an archive: DSA over the SHA-1 of the archive's SHA-1, DER, in base64, as
//   openssl dgst -sha1 -binary ARCHIVE | openssl dgst -sha1 -sign dsa_priv.pem | openssl base64
// makes it, with a key of which q has 160 bits. Any thread.
#import <Foundation/Foundation.h>

// nil when `signature` is that of `archive` under the public key `pem`; else why not.
NSString* SUSignatureProblem(NSData* archive, NSString* signature, NSString* pem);
