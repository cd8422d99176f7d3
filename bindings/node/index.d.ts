// Types of the `ostriolib` Node addon.

export interface ConfigureOptions {
  /** "ostriolib.OstrioClientName": the host's client name, part of the client ID. */
  clientName: string;
  /** "ostriolib.OstrioRedirectURI": the URL scheme the sign-in redirect comes back under. */
  redirectUri: string;
  companyName?: string;
  version?: string;
  buildNumber?: string;
  /**
   * The executable the registered URL scheme runs with the callback URL as its argument (it hands
   * the URL to this process, which calls handleCallbackUrl). Without it the scheme runs the
   * `node` executable itself, which cannot know what to do with the URL.
   */
  schemeHandler?: string;
}

/**
 * Hands the library the host's parameters; call it once, before anything else. Throws a
 * TypeError for missing or malformed options, and an Error (with a numeric `code`) when the
 * library cannot start, when it was already configured, or when the scheme handler cannot be
 * registered.
 */
export function configure(options: ConfigureOptions): void;

/**
 * Hands the sign-in redirect (the callback URL the browser opened) to the library. Returns the
 * library's result code: zero or positive when the credentials were taken, negative otherwise.
 * Signing in completes afterwards and is announced by an OstrioAuthEventObject.SIGNED_IN event.
 */
export function handleCallbackUrl(url: string): number;

/** An Error from the library: `code` is its result code (a negative 32-bit integer). */
export interface OstrioError extends Error {
  code: number;
}

export namespace Ostriolib {
  /** Ostriolib Client */
  export class OstrioClient {
    private constructor();
    /** Get an object representing the Ostrio client (a new object each call, one client behind them). */
    static getInstance(): OstrioClient;
    /** Sign in to Ostrio: true when the browser sign-in was started. */
    signInOstrioUser(): boolean;
    /** Sign out of Ostrio: true when a signed-in user was signed out. */
    signOutOstrioUser(): boolean;
    /** Check if the Ostrio user is signed in */
    isOstrioUserSignedIn(): boolean;
    /**
     * Refresh the access token. Rejected with `false` when nobody is signed in; resolved with the
     * current token at once while this object's refresh is pending; otherwise resolved with the
     * refreshed token, or with "" when the refresh failed (the user is then signed out). Rejected
     * with an OstrioError when the object was released before its refresh completed.
     */
    refreshAccessToken(): Promise<string>;
    /** Get the current access token for scripting ("" when none). */
    getAccessToken(): string;
    /** Get the current refresh token for scripting ("" when none). */
    getRefreshToken(): string;
  }

  export type OstrioAuthEventName = 'SignedIn' | 'SignedOut';

  /** Ostriolib Authentication Events: delivered on the JavaScript thread. */
  export class OstrioAuthEventObject {
    private constructor();
    /** Sent when a user is signed in. */
    static readonly SIGNED_IN: 'SignedIn';
    /** Sent when a user is signed out. */
    static readonly SIGNED_OUT: 'SignedOut';
    /** The event's name: SIGNED_IN or SIGNED_OUT. */
    readonly type: OstrioAuthEventName;
    /** Listeners do not keep the process alive; adding the same function twice adds it once. */
    static addEventListener(name: OstrioAuthEventName, listener: (event: OstrioAuthEventObject) => void): void;
    static removeEventListener(name: OstrioAuthEventName, listener: (event: OstrioAuthEventObject) => void): void;
  }
}
