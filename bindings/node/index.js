'use strict';

// The package's entry: loads the addon from a build tree. OSTRIOLIB_NODE_ADDON names the built
// `ostriolib.node` when set; otherwise addon-path.json, which the CMake build writes beside this
// file, gives its path relative to here.

const fs = require('node:fs');
const path = require('node:path');

function addonPath() {
  if (process.env.OSTRIOLIB_NODE_ADDON) return path.resolve(process.env.OSTRIOLIB_NODE_ADDON);
  const locator = path.join(__dirname, 'addon-path.json');
  let entry;
  try {
    entry = JSON.parse(fs.readFileSync(locator, 'utf8'));
  } catch (err) {
    throw new Error(`ostriolib: the addon is not built (${locator}: ${err.message}); ` +
      'configure and build the project with CMake, or set OSTRIOLIB_NODE_ADDON to a built ostriolib.node');
  }
  if (typeof entry.addon !== 'string') throw new Error(`ostriolib: ${locator} names no addon`);
  return path.resolve(__dirname, entry.addon);
}

module.exports = require(addonPath());
