// The signature of an archive: DSA over the SHA-1 of its bytes, DER, in base64, as
//   openssl dgst -sha1 -sign dsa_priv.pem ARCHIVE | base64
// makes it. Any thread.
#import <Foundation/Foundation.h>

// nil when `signature` is that of the file at `path` under the public key `pem`; else why not.
NSString* SUSignatureProblem(NSString* path, NSString* signature, NSString* pem);
