/* Two tables under one lock. A login that was never finished ages out after a few minutes; a
 * session ends at its time. The pending table never pushes out a login under way, since that
 * would let anybody's flood of requests break other people's sign-ins; the sessions table,
 * which grows only by real sign-ins, makes room by dropping the session that ends first. */
#include "store.h"

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/random.h>
#include <time.h>

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static size_t capacity;
static time_t pendingLifetime; /* seconds a browser has to come back from the provider */
static struct PendingLogin *pending;
static time_t *pendingSince;
static struct Session *sessions;

int storeStart(int maxPending, int lifetime) {
    capacity = maxPending > 0 ? (size_t)maxPending : 1;
    pendingLifetime = lifetime;
    pending = calloc(capacity, sizeof *pending);
    pendingSince = calloc(capacity, sizeof *pendingSince);
    sessions = calloc(capacity, sizeof *sessions);
    if (pending == NULL || pendingSince == NULL || sessions == NULL) {
        storeStop();
        return -1;
    }
    return 0;
}

void storeStop(void) {
    free(pending);
    free(pendingSince);
    free(sessions);
    pending = NULL;
    pendingSince = NULL;
    sessions = NULL;
    capacity = 0;
}

int storeRandomId(char out[STORE_ID_SIZE]) {
    static char const alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    unsigned char bytes[33]; /* 33 bytes make 44 characters; 43 of them are kept (256 bits) */
    if (getrandom(bytes, sizeof bytes, 0) != (ssize_t)sizeof bytes) {
        return -1;
    }
    size_t at = 0;
    for (size_t i = 0; i < sizeof bytes && at < STORE_ID_SIZE - 1; i += 3) {
        unsigned group = (unsigned)bytes[i] << 16 | (unsigned)bytes[i + 1] << 8 | bytes[i + 2];
        for (int shift = 18; shift >= 0 && at < STORE_ID_SIZE - 1; shift -= 6) {
            out[at++] = alphabet[(group >> shift) & 63];
        }
    }
    out[at] = '\0';
    return 0;
}

static int pendingExpired(size_t i, time_t now) {
    return now - pendingSince[i] > pendingLifetime;
}

int storePendingAdd(struct PendingLogin const *login) {
    time_t now = time(NULL);
    int added = -1;
    pthread_mutex_lock(&lock);
    for (size_t i = 0; i < capacity && added != 0; ++i) {
        if (pending[i].id[0] == '\0' || pendingExpired(i, now)) {
            pending[i] = *login;
            pendingSince[i] = now;
            added = 0;
        }
    }
    pthread_mutex_unlock(&lock);
    return added;
}

int storePendingTake(char const *id, struct PendingLogin *out) {
    int found = -1;
    time_t now = time(NULL);
    pthread_mutex_lock(&lock);
    for (size_t i = 0; i < capacity && found != 0; ++i) {
        if (pending[i].id[0] != '\0' && strcmp(pending[i].id, id) == 0) {
            found = pendingExpired(i, now) ? -1 : 0;
            *out = pending[i];
            memset(&pending[i], 0, sizeof pending[i]);
        }
    }
    pthread_mutex_unlock(&lock);
    return found;
}

static long long endOf(long long expiry, long long lifetime) {
    long long latest = (long long)time(NULL) + lifetime;
    return expiry < latest ? expiry : latest;
}

int storeSessionAdd(struct Session *session, long long lifetime) {
    if (storeRandomId(session->id) != 0) {
        return -1;
    }
    session->ends = endOf(session->expiry, lifetime);
    pthread_mutex_lock(&lock);
    size_t slot = 0;
    for (size_t i = 0; i < capacity; ++i) {
        if (sessions[i].id[0] == '\0') {
            slot = i;
            break;
        }
        if (sessions[i].ends < sessions[slot].ends) {
            slot = i;
        }
    }
    sessions[slot] = *session;
    pthread_mutex_unlock(&lock);
    return 0;
}

/* The live session with this id; an ended one is forgotten on the way. Under the lock. */
static struct Session *findSession(char const *id) {
    long long now = (long long)time(NULL);
    for (size_t i = 0; i < capacity; ++i) {
        if (sessions[i].id[0] != '\0' && strcmp(sessions[i].id, id) == 0) {
            if (sessions[i].ends <= now) {
                memset(&sessions[i], 0, sizeof sessions[i]);
                return NULL;
            }
            return &sessions[i];
        }
    }
    return NULL;
}

int storeSessionGet(char const *id, struct Session *out) {
    pthread_mutex_lock(&lock);
    struct Session *session = findSession(id);
    if (session) {
        *out = *session;
    }
    pthread_mutex_unlock(&lock);
    return session ? 0 : -1;
}

int storeSessionRenew(char const *id, char const *value, long long expiry, long long lifetime) {
    pthread_mutex_lock(&lock);
    struct Session *session = findSession(id);
    if (session) {
        snprintf(session->value, sizeof session->value, "%s", value);
        session->expiry = expiry;
        session->ends = endOf(expiry, lifetime);
        session->refreshes += 1;
    }
    pthread_mutex_unlock(&lock);
    return session ? 0 : -1;
}

void storeSessionRemove(char const *id) {
    pthread_mutex_lock(&lock);
    struct Session *session = findSession(id);
    if (session) {
        memset(session, 0, sizeof *session);
    }
    pthread_mutex_unlock(&lock);
}
