'use strict';

// Child of exit.test.js: a script that starts a refresh and then either exits on the spot
// ("exit") or simply ends ("end"), printing what its promise gave. The environment comes from the
// parent; OSTRIO_TEST_RECORD is the credential record to sign in with.

const ostriolib = require('..');
const { SCHEME } = require('./support.js');

ostriolib.configure({ clientName: 'NodeExitTest', redirectUri: SCHEME, schemeHandler: process.env.OSTRIO_TEST_HANDLER });
if (ostriolib.handleCallbackUrl(`${SCHEME}://ostrio#${process.env.OSTRIO_TEST_RECORD}`) !== 0) process.exit(3);
const pending = ostriolib.Ostriolib.OstrioClient.getInstance().refreshAccessToken();
if (process.argv[2] === 'exit') {
  process.exit(0);
} else {
  pending.then((token) => process.stdout.write(token ? 'token' : 'empty'), (error) => process.stdout.write(`rejected ${error}`));
}
