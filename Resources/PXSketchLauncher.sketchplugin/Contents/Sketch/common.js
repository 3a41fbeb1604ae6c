// Shared by the launcher and detacher commands. The requests come as JSON files
// written beside these scripts by PlexaExtract; the answers go back as
// distributed notifications.

var PXNotificationObject = "PlexaExtract";
var PXOpenRequestFileName = "PXSketchLauncher-openDocument.json";
var PXDetachConfigFileName = "PXSymbolDetacher.json";

function pxScriptFolder(context) {
  return NSString.stringWithString(context.scriptPath).stringByDeletingLastPathComponent();
}

// The parsed request file beside the scripts, or null when it is missing or
// is not a JSON dictionary.
function pxReadRequest(context, fileName) {
  var path = pxScriptFolder(context).stringByAppendingPathComponent(fileName);
  var text = NSString.stringWithContentsOfFile_encoding_error(path, NSUTF8StringEncoding, nil);
  if (!text) {
    log("PXSketchLauncher: no request at " + path);
    return null;
  }
  try {
    var value = JSON.parse(String(text));
    return value !== null && typeof value === "object" && !Array.isArray(value) ? value : null;
  } catch (e) {
    log("PXSketchLauncher: unreadable request " + path + ": " + e);
    return null;
  }
}

function pxPost(name, object, userInfo) {
  NSDistributedNotificationCenter.defaultCenter().postNotificationName_object_userInfo_deliverImmediately(
    name, object, userInfo, true);
}

function pxFileExists(path) {
  var isDirectory = MOPointer.alloc().initWithValue(false);
  return NSFileManager.defaultManager().fileExistsAtPath_isDirectory(path, isDirectory) && !isDirectory.value();
}

// The open document for a path, or null.
function pxDocumentForPath(path) {
  var url = NSURL.fileURLWithPath(path);
  var document = NSDocumentController.sharedDocumentController().documentForURL(url);
  return document ? document : null;
}
