'use strict';

// Sign-in through the browser redirect and sign-out, as a script and its host see them.

const assert = require('node:assert/strict');
const fs = require('node:fs');
const path = require('node:path');
const { test } = require('node:test');
const { recordAuthEvents, refreshRequests, withConfiguredLibrary, SCHEME } = require('./support.js');

const library = withConfiguredLibrary();

test('the sign-in scheme runs the host\'s handler, not the bare node executable', () => {
  const entry = fs.readFileSync(
    path.join(library.environment.env.XDG_DATA_HOME, 'applications', `${SCHEME}-url-handler.desktop`), 'utf8');
  assert.match(entry, new RegExp(`^Exec="${library.environment.schemeHandler}" %u$`, 'm'));
  assert.throws(() => library.ostriolib.configure({ clientName: 'Again', redirectUri: SCHEME }), /already configured/);
});

test('signed out: no token, and a refresh is rejected with false', async () => {
  const client = library.ostriolib.Ostriolib.OstrioClient.getInstance();
  assert.equal(client.isOstrioUserSignedIn(), false);
  assert.equal(client.getAccessToken(), '');
  assert.equal(client.getRefreshToken(), '');
  assert.equal(client.signOutOstrioUser(), false);
  await assert.rejects(client.refreshAccessToken(), (reason) => reason === false);
});

test('sign-in through the redirect, then sign-out: SIGNED_IN then SIGNED_OUT, each reflecting the state', async () => {
  const { OstrioClient, OstrioAuthEventObject } = library.ostriolib.Ostriolib;
  const events = recordAuthEvents(OstrioAuthEventObject);
  const client = OstrioClient.getInstance();

  assert.equal(client.signInOstrioUser(), true);
  const [signInUrl] = library.environment.browsedUrls();
  assert.ok(signInUrl, 'the browser command was given the sign-in page');
  const page = new URL(signInUrl);
  assert.equal(page.searchParams.get('auth_callback'), `${SCHEME}://ostrio`);
  const approved = await library.environment.emulator.request('accounts', 'GET', `${page.pathname}${page.search}&approve=1`);
  assert.equal(approved.status, 302);
  assert.equal(library.ostriolib.handleCallbackUrl(approved.headers.location), 0);

  const signedIn = await events.next();
  assert.equal(signedIn.type, OstrioAuthEventObject.SIGNED_IN);
  assert.ok(signedIn instanceof OstrioAuthEventObject);
  assert.equal(client.isOstrioUserSignedIn(), true);
  const token = client.getAccessToken();
  assert.ok(token && approved.headers.location.includes(`&token=Bearer%20${token}&`));
  assert.notEqual(client.getRefreshToken(), '');
  // A token with hours to live is handed back as it is, without asking the service.
  assert.equal(await OstrioClient.getInstance().refreshAccessToken(), token);
  assert.equal((await refreshRequests(library.environment.emulator)).length, 0);

  assert.equal(client.signOutOstrioUser(), true);
  const signedOut = await events.next();
  assert.equal(signedOut.type, OstrioAuthEventObject.SIGNED_OUT);
  assert.deepEqual(events.seen.map((e) => e.type), ['SignedIn', 'SignedOut']);
  assert.equal(client.isOstrioUserSignedIn(), false);
  assert.equal(client.getAccessToken(), '');
  await assert.rejects(client.refreshAccessToken(), (reason) => reason === false);
});

test('malformed input from the host gets a clear error', () => {
  const { OstrioClient, OstrioAuthEventObject } = library.ostriolib.Ostriolib;
  assert.throws(() => new OstrioClient(), TypeError);
  assert.throws(() => OstrioClient.prototype.getAccessToken.call({}), TypeError);
  assert.throws(() => OstrioAuthEventObject.addEventListener('SignedUp', () => {}), TypeError);
  assert.throws(() => library.ostriolib.configure({ clientName: 'x', redirectUri: 'not a scheme' }), TypeError);
  assert.throws(() => library.ostriolib.handleCallbackUrl(42), TypeError);
  assert.throws(() => library.ostriolib.handleCallbackUrl(`${SCHEME}://ostrio#${'x'.repeat(70000)}`), RangeError);
  assert.ok(library.ostriolib.handleCallbackUrl('https://elsewhere.example/#token=x') < 0);
});
