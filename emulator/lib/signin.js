'use strict';

// The browser sign-in page. It has to work in any browser with JavaScript off (a plain form
// POST), because the library hands the URL to whatever the desktop opens; and it has to
// redirect to the app's custom scheme with the credential record as fragment.

const SCHEME_RE = /^[A-Za-z][A-Za-z0-9+.-]*:/;

// The library percent-encodes the callback's scheme with a single hex digit for bytes below
// 0x10 (a tab arrives as "%9"). Standard decoders reject that, so decode only well-formed
// %XX runs that form valid UTF-8 and leave everything else exactly as received.
function lenientDecode(text) {
  return text.replace(/(?:%[0-9A-Fa-f]{2})+/g, (run) => {
    try {
      return decodeURIComponent(run);
    } catch {
      return run;
    }
  });
}

// Query parameters of a raw query string, decoded leniently; "+" stays "+" (the library
// encodes a plus sign as %2B and never sends spaces as "+").
function rawQueryParams(search) {
  const out = new Map();
  for (const item of search.replace(/^\?/, '').split('&')) {
    if (!item) continue;
    const eq = item.indexOf('=');
    const key = lenientDecode(eq < 0 ? item : item.slice(0, eq));
    const value = eq < 0 ? '' : lenientDecode(item.slice(eq + 1));
    if (!out.has(key)) out.set(key, value);
  }
  return out;
}

// Why a callback cannot be redirected to, or null when it can. The fragment is ours to fill,
// and the value has to be a legal Location header.
function callbackProblem(callback) {
  if (!callback) return 'auth_callback is missing';
  if (!SCHEME_RE.test(callback)) return 'auth_callback is not an absolute URL with a scheme';
  if (callback.includes('#')) return 'auth_callback must not contain a fragment';
  if (!/^[\x21-\x7e]+$/.test(callback)) return 'auth_callback contains blanks or characters that cannot be sent in a redirect';
  return null;
}

function escapeHtml(text) {
  return String(text).replace(/[&<>"']/g, (c) => ({ '&': '&amp;', '<': '&lt;', '>': '&gt;', '"': '&quot;', "'": '&#39;' })[c]);
}

const STYLE = `
  body { font-family: system-ui, sans-serif; background: #f3f4f6; margin: 0; display: flex; min-height: 100vh; align-items: center; justify-content: center; }
  main { background: #fff; border-radius: 12px; box-shadow: 0 4px 24px rgba(0,0,0,.08); padding: 2rem 2.5rem; width: 22rem; }
  h1 { font-size: 1.4rem; margin: 0 0 .25rem; }
  p { color: #4b5563; margin: .25rem 0 1rem; }
  label { display: block; font-weight: 600; margin: 1rem 0 .35rem; }
  input[type=email] { width: 100%; box-sizing: border-box; padding: .55rem .7rem; font-size: 1rem; border: 1px solid #d1d5db; border-radius: 6px; }
  button { margin-top: 1.25rem; width: 100%; padding: .65rem; font-size: 1rem; font-weight: 600; color: #fff; background: #2563eb; border: 0; border-radius: 6px; cursor: pointer; }
  .error { color: #b91c1c; font-weight: 600; }
  .fine { font-size: .8rem; color: #6b7280; word-break: break-all; }
`;

function page(title, inner) {
  return `<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>${escapeHtml(title)}</title>
<style>${STYLE}</style>
</head>
<body>
<main>
${inner}
</main>
</body>
</html>
`;
}

function html(status, text) {
  return {
    status,
    headers: { 'content-type': 'text/html; charset=utf-8', 'cache-control': 'no-store' },
    body: Buffer.from(text),
  };
}

function signInPage({ users, callback, legacyAuth, email, error, status = 200 }) {
  const options = users.map((u) => `<option value="${escapeHtml(u.email)}">${escapeHtml(u.name)}</option>`).join('');
  return html(status, page('Sign in · Ostrio', `<h1>Sign in to Ostrio</h1>
<p>Local Ostrio emulator: pick a user, no password needed.</p>
${error ? `<p class="error" role="alert">${escapeHtml(error)}</p>` : ''}
<form method="post" action="/welcome">
<input type="hidden" name="auth_callback" value="${escapeHtml(callback)}">
<input type="hidden" name="legacy_auth" value="${escapeHtml(legacyAuth ?? 'false')}">
<label for="email">E-mail</label>
<input id="email" name="email" type="email" value="${escapeHtml(email)}" list="known-users" autocomplete="username" required>
<datalist id="known-users">${options}</datalist>
<button type="submit" id="sign-in">Sign in</button>
</form>
<p class="fine">You will be sent back to ${escapeHtml(callback.replace(/:.*/s, ':'))}…</p>`));
}

function errorPage(status, message) {
  return html(status, page('Sign-in problem · Ostrio', `<h1>Cannot sign in</h1>
<p class="error" role="alert">${escapeHtml(message)}</p>`));
}

class SignIn {
  constructor({ dataset, tokens }) {
    this.dataset = dataset;
    this.tokens = tokens;
  }

  redirect(callback, user) {
    const session = this.tokens.session(user.id);
    return {
      status: 302,
      headers: { location: `${callback}#${session.record}`, 'cache-control': 'no-store', 'content-type': 'text/html; charset=utf-8' },
      body: Buffer.from(page('Signed in · Ostrio', '<h1>Signed in</h1><p>Returning to the application…</p>')),
    };
  }

  handle(req, url, rawBody) {
    const users = [...this.dataset.users.values()];
    if (req.method === 'GET' || req.method === 'HEAD') {
      const params = rawQueryParams(url.search);
      const callback = params.get('auth_callback') || '';
      const problem = callbackProblem(callback);
      if (problem) return errorPage(400, problem);
      const email = params.get('email') || this.dataset.demoUser.email;
      if (params.get('approve') === '1') {
        const user = this.dataset.userByEmail(email);
        if (!user) return errorPage(401, `no user with e-mail ${email}`);
        return this.redirect(callback, user);
      }
      return signInPage({ users, callback, legacyAuth: params.get('legacy_auth'), email });
    }
    if (req.method === 'POST') {
      const type = String(req.headers['content-type'] || '');
      if (!/^application\/x-www-form-urlencoded\s*(;|$)/i.test(type)) return errorPage(415, 'the sign-in form must be posted as application/x-www-form-urlencoded');
      const form = new URLSearchParams(rawBody.toString('utf8'));
      const callback = form.get('auth_callback') || '';
      const problem = callbackProblem(callback);
      if (problem) return errorPage(400, problem);
      const email = form.get('email') || '';
      const user = this.dataset.userByEmail(email);
      if (!user) {
        return signInPage({ users, callback, legacyAuth: form.get('legacy_auth'), email, error: `No user with e-mail "${email}".`, status: 401 });
      }
      return this.redirect(callback, user);
    }
    return { ...errorPage(405, 'use GET or POST'), headers: { 'content-type': 'text/html; charset=utf-8', allow: 'GET, HEAD, POST' } };
  }
}

module.exports = { SignIn, lenientDecode, rawQueryParams, callbackProblem };
