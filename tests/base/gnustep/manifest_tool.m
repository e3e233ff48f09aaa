// Reads or writes a backup's manifest with GNUstep's keyed archiver.
//
//   manifest_tool read FILE    prints what it decodes, one "name: value" a line
//   manifest_tool write FILE   archives a record of two files
#import <Foundation/Foundation.h>

@interface ZQStashwickQueryResult : NSObject <NSCoding> {
 @public
  NSArray *files;
  NSURL *path;
  int64_t bytes;
  BOOL ready;
  BOOL ignoresHiddenFiles;
}
@end

@implementation ZQStashwickQueryResult
- (id)initWithCoder:(NSCoder *)coder {
  self = [super init];
  files = [[coder decodeObjectForKey:@"files"] retain];
  path = [[coder decodeObjectForKey:@"path"] retain];
  bytes = [coder decodeInt64ForKey:@"bytes"];
  ready = [coder decodeBoolForKey:@"ready"];
  ignoresHiddenFiles = [coder decodeBoolForKey:@"ignoresHiddenFiles"];
  return self;
}
- (void)encodeWithCoder:(NSCoder *)coder {
  [coder encodeObject:files forKey:@"files"];
  [coder encodeObject:path forKey:@"path"];
  [coder encodeInt64:bytes forKey:@"bytes"];
  [coder encodeBool:ready forKey:@"ready"];
  [coder encodeBool:ignoresHiddenFiles forKey:@"ignoresHiddenFiles"];
}
@end

@interface ZQStashwickOperation : NSObject <NSCoding> {
 @public
  NSString *format;
  NSString *encryption;
  ZQStashwickQueryResult *result;
}
@end

@implementation ZQStashwickOperation
- (id)initWithCoder:(NSCoder *)coder {
  self = [super init];
  format = [[coder decodeObjectForKey:@"format"] retain];
  encryption = [[coder decodeObjectForKey:@"encryption"] retain];
  result = [[coder decodeObjectForKey:@"result"] retain];
  return self;
}
- (void)encodeWithCoder:(NSCoder *)coder {
  [coder encodeObject:format forKey:@"format"];
  [coder encodeObject:encryption forKey:@"encryption"];
  [coder encodeObject:result forKey:@"result"];
}
@end

static void show(NSString *name, id value) {
  NSString *line = [NSString stringWithFormat:@"%@: %@\n", name, value ? value : @"(nil)"];
  fputs([line UTF8String], stdout);
}

static int readManifest(NSString *file) {
  ZQStashwickOperation *operation = [NSKeyedUnarchiver unarchiveObjectWithFile:file];
  ZQStashwickQueryResult *result = operation->result;
  show(@"class", [operation class]);
  show(@"format", operation->format);
  show(@"encryption", operation->encryption);
  show(@"result", [result class]);
  if (!result) return 0;
  show(@"path", [result->path absoluteString]);
  show(@"bytes", [NSNumber numberWithLongLong:result->bytes]);
  show(@"ready", result->ready ? @"YES" : @"NO");
  show(@"ignoresHiddenFiles", result->ignoresHiddenFiles ? @"YES" : @"NO");
  show(@"files are an array", [result->files isKindOfClass:[NSArray class]] ? @"YES" : @"NO");
  NSEnumerator *urls = [result->files objectEnumerator];
  for (NSURL *url = [urls nextObject]; url; url = [urls nextObject]) {
    show([url isFileURL] ? @"file" : @"no file URL", [url path]);
  }
  return 0;
}

static int writeManifest(NSString *file) {
  ZQStashwickQueryResult *result = [[ZQStashwickQueryResult new] autorelease];
  result->files = [[NSMutableArray alloc] initWithObjects:[NSURL URLWithString:@"file:///Volumes/STICK/a%20b"],
                                                          [NSURL URLWithString:@"file:///Volumes/STICK/%C3%A9/"], nil];
  result->path = [[NSURL alloc] initWithString:@"file:///Volumes/STICK/"];
  result->bytes = 5000000000LL;
  result->ready = YES;
  result->ignoresHiddenFiles = YES;
  ZQStashwickOperation *operation = [[ZQStashwickOperation new] autorelease];
  operation->format = @"HFS+";
  operation->encryption = @"AES-256";
  operation->result = [result retain];
  return [NSKeyedArchiver archiveRootObject:operation toFile:file] ? 0 : 1;
}

int main(int argc, const char **argv) {
  NSAutoreleasePool *pool = [NSAutoreleasePool new];
  if (argc != 3) return 2;
  NSString *file = [NSString stringWithUTF8String:argv[2]];
  const int status = strcmp(argv[1], "read") == 0 ? readManifest(file) : writeManifest(file);
  [pool release];
  return status;
}
