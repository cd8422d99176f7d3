'use strict';

// Child of addon.test.js: a script that starts a refresh and then either exits on the spot
// ("exit") or simply ends ("end"), printing what its promise gave. The environment comes from the
// parent; OSTRIO_TEST_REDIRECT is the sign-in redirect to hand over.

const ostriolib = require('..');

const redirect = process.env.OSTRIO_TEST_REDIRECT;
ostriolib.configure({ clientName: 'NodeExitTest', redirectUri: redirect.split(':')[0], schemeHandler: process.env.OSTRIO_TEST_HANDLER });
if (ostriolib.handleCallbackUrl(redirect) !== 0) process.exit(3);
const pending = ostriolib.Ostriolib.OstrioClient.getInstance().refreshAccessToken();
if (process.argv[2] === 'exit') {
  process.exit(0);
} else {
  pending.then((token) => process.stdout.write(token ? 'token' : 'empty'), (error) => process.stdout.write(`rejected ${error}`));
}
