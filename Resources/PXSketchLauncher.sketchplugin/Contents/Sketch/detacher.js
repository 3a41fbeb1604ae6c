@import 'common.js'

// Detaches the symbol instances of the document named by the detach
// configuration (PXSymbolDetacher.json beside this script):
//   filePath              the open document to work on; every notification
//                         carries it back as "file"
//   detachMethod          "all" (the default), "selection" or "none"
//   detachingArtboardIds  with "selection": the artboards whose instances go
//   saveAsPath            where a detached copy is saved
//   saveAfterDetach       save the document itself
//   restoreAfterDetach    revert the document to its saved state afterwards
//   closeAfterDetach      close it afterwards
// Progress goes out as PlexaExtractSymbolDetacherWillDetachNotification,
// ...ProgressNotification and ...DidDetachNotification, object "PlexaExtract",
// user info "file", "index" and "count".

function pxNotify(name, config, index, count) {
  pxPost(name, PXNotificationObject, { file: config.filePath, index: index, count: count });
}

function pxReadConfig(context) {
  var config = pxReadRequest(context, PXDetachConfigFileName);
  if (!config || typeof config.filePath !== "string") {
    log("PXSymbolDetacher: no usable configuration");
    return null;
  }
  return config;
}

function pxIsSymbolInstance(layer) {
  return layer.isKindOfClass(MSSymbolInstance);
}

// Instances on every page, or only inside the chosen artboards.
function pxInstancesToDetach(document, config) {
  var method = typeof config.detachMethod === "string" ? config.detachMethod : "all";
  if (method === "none") return [];
  var wanted = null;
  if (method === "selection") {
    wanted = {};
    (config.detachingArtboardIds || []).forEach(function (id) { wanted[String(id)] = true; });
  }
  var found = [];
  var pages = document.pages();
  for (var p = 0; p < pages.count(); p++) {
    var artboards = pages.objectAtIndex(p).artboards();
    for (var a = 0; a < artboards.count(); a++) {
      var artboard = artboards.objectAtIndex(a);
      if (wanted && !wanted[String(artboard.objectID())]) continue;
      var children = artboard.children();
      for (var c = 0; c < children.count(); c++) {
        var layer = children.objectAtIndex(c);
        if (pxIsSymbolInstance(layer)) found.push(layer);
      }
    }
  }
  return found;
}

// Replaces one instance by a group; nested instances go with it.
function pxDetachInstance(instance) {
  if (!instance.parentGroup()) return; // already replaced with an outer instance
  if (instance.respondsToSelector(NSSelectorFromString("detachStylesAndReplaceWithGroupRecursively:"))) {
    instance.detachStylesAndReplaceWithGroupRecursively(true);
  } else if (instance.respondsToSelector(NSSelectorFromString("detachByReplacingWithGroup"))) {
    instance.detachByReplacingWithGroup();
  }
}

function pxSave(document, config) {
  if (typeof config.saveAsPath === "string" && config.saveAsPath.length > 0) {
    document.saveToURL_ofType_forSaveOperation_delegate_didSaveSelector_contextInfo(
      NSURL.fileURLWithPath(config.saveAsPath), document.fileType(), NSSaveToOperation, nil, nil, nil);
  }
  if (config.saveAfterDetach === true) document.saveDocument(nil);
}

function pxFinish(document, config) {
  if (config.restoreAfterDetach === true && document.fileURL()) {
    document.revertToContentsOfURL_ofType_error(document.fileURL(), document.fileType(), nil);
  }
  if (config.closeAfterDetach === true) document.close();
}

// The whole detach in one go; returns the document, or null when it is not open.
function pxDetachAll(config) {
  var document = pxDocumentForPath(config.filePath);
  if (!document) {
    log("PXSymbolDetacher: " + config.filePath + " is not open");
    return null;
  }
  var instances = pxInstancesToDetach(document, config);
  var count = instances.length;
  pxNotify("PlexaExtractSymbolDetacherWillDetachNotification", config, 0, count);
  for (var i = 0; i < count; i++) {
    pxDetachInstance(instances[i]);
    pxNotify("PlexaExtractSymbolDetacherProgressNotification", config, i + 1, count);
  }
  pxSave(document, config);
  pxNotify("PlexaExtractSymbolDetacherDidDetachNotification", config, count, count);
  return document;
}

// Synchronous: returns when the document is detached, saved and restored.
function detachDocument(context) {
  var config = pxReadConfig(context);
  if (!config) return;
  var document = pxDetachAll(config);
  if (document) pxFinish(document, config);
}

// Asynchronous: returns at once; the work runs on Sketch's main loop a few
// instances at a time, and PlexaExtract calls detachDocumentAsyncEnd when it
// has heard the did-detach notification.
function detachDocumentAsyncStart(context) {
  var config = pxReadConfig(context);
  if (!config) return;
  var document = pxDocumentForPath(config.filePath);
  if (!document) {
    log("PXSymbolDetacher: " + config.filePath + " is not open");
    return;
  }
  var instances = pxInstancesToDetach(document, config);
  var count = instances.length;
  var next = 0;
  var batch = 20;
  coscript.setShouldKeepAround(true);
  pxNotify("PlexaExtractSymbolDetacherWillDetachNotification", config, 0, count);
  var step = function () {
    var end = Math.min(next + batch, count);
    for (; next < end; next++) {
      pxDetachInstance(instances[next]);
      pxNotify("PlexaExtractSymbolDetacherProgressNotification", config, next + 1, count);
    }
    if (next < count) {
      coscript.scheduleWithInterval_jsFunction(0.01, step);
      return;
    }
    pxSave(document, config);
    pxNotify("PlexaExtractSymbolDetacherDidDetachNotification", config, count, count);
  };
  coscript.scheduleWithInterval_jsFunction(0.01, step);
}

function detachDocumentAsyncEnd(context) {
  var config = pxReadConfig(context);
  if (config) {
    var document = pxDocumentForPath(config.filePath);
    if (document) pxFinish(document, config);
  }
  coscript.setShouldKeepAround(false);
}
