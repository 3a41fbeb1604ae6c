@import 'common.js'

// Installed into Sketch's plug-in folder only for one launch: PlexaExtract
// removes it again when it hears this.
function onStartup(context) {
  pxPost("PXSketchLauncherOnStartupNotification", nil, nil);
}

// Opens the document named by the open request, or reports that it is not
// there. A document that is already open counts as opened.
function openDocument(context) {
  var request = pxReadRequest(context, PXOpenRequestFileName);
  var path = request && typeof request.filePath === "string" ? request.filePath : null;
  if (!path || !pxFileExists(path)) {
    pxPost("PXSketchLauncherOpenDocumentNotFoundNotification", nil, nil);
    return;
  }
  var document = pxDocumentForPath(path);
  if (!document) {
    var error = MOPointer.alloc().init();
    document = NSDocumentController.sharedDocumentController().openDocumentWithContentsOfURL_display_error(
      NSURL.fileURLWithPath(path), true, error);
  }
  if (!document) {
    log("PXSketchLauncher: could not open " + path);
    pxPost("PXSketchLauncherOpenDocumentNotFoundNotification", nil, nil);
    return;
  }
  pxPost("PXSketchLauncherOpenDocumentSucceedNotification", nil, nil);
}
