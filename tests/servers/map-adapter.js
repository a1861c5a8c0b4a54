// A store for the provider with no size limit: a Map whose entries go when they expire. The
// provider's own in-memory store keeps only the last ~1,000 entries, and each sign-in writes about
// ten (interaction, session, grant, code, tokens), so hundreds of codes minted ahead of their use
// would push each other out. provider.js uses this store when QXSS_PROVIDER_STORE=map.
const storage = new Map();

function expired(entry) {
  return entry.expiresAt !== 0 && entry.expiresAt <= Date.now();
}

function get(key) {
  const entry = storage.get(key);
  if (!entry) return undefined;
  if (expired(entry)) {
    storage.delete(key);
    return undefined;
  }
  return entry.value;
}

function set(key, value, expiresIn) {
  storage.set(key, { value, expiresAt: expiresIn ? Date.now() + expiresIn * 1000 : 0 });
}

// Tokens that a grant's revocation takes with it.
const grantable = new Set(['AccessToken', 'AuthorizationCode', 'RefreshToken', 'DeviceCode', 'BackchannelAuthenticationRequest']);

// Expired entries of codes nobody used are dropped once a minute, so a long run stays small.
setInterval(() => {
  for (const [key, entry] of storage) if (expired(entry)) storage.delete(key);
}, 60000).unref();

export default class MapAdapter {
  constructor(model) {
    this.model = model;
  }

  key(id) {
    return `${this.model}:${id}`;
  }

  async upsert(id, payload, expiresIn) {
    const key = this.key(id);
    if (this.model === 'Session') set(`sessionUid:${payload.uid}`, id, expiresIn);
    if (grantable.has(this.model) && payload.grantId) {
      const grantKey = `grant:${payload.grantId}`;
      const keys = get(grantKey);
      if (keys) keys.push(key);
      else set(grantKey, [key], 0);
    }
    if (payload.userCode) set(`userCode:${payload.userCode}`, id, expiresIn);
    set(key, payload, expiresIn);
  }

  async find(id) {
    return get(this.key(id));
  }

  async findByUid(uid) {
    const id = get(`sessionUid:${uid}`);
    return id === undefined ? undefined : this.find(id);
  }

  async findByUserCode(userCode) {
    const id = get(`userCode:${userCode}`);
    return id === undefined ? undefined : this.find(id);
  }

  async consume(id) {
    const payload = get(this.key(id));
    if (payload) payload.consumed = Math.floor(Date.now() / 1000);
  }

  async destroy(id) {
    storage.delete(this.key(id));
  }

  async revokeByGrantId(grantId) {
    const grantKey = `grant:${grantId}`;
    for (const key of get(grantKey) || []) storage.delete(key);
    storage.delete(grantKey);
  }
}
