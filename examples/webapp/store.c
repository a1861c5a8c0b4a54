/* Two small tables under one lock. Old entries make room for new ones: a login that was never
 * finished, or a session that was never signed out, ages out instead of filling the memory. */
#include "store.h"

#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <sys/random.h>
#include <time.h>

#define STORE_CAPACITY 512
#define PENDING_LIFETIME 600 /* seconds a browser has to come back from the provider */

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static struct PendingLogin pending[STORE_CAPACITY];
static time_t pendingSince[STORE_CAPACITY];
static struct Session sessions[STORE_CAPACITY];
static time_t sessionSince[STORE_CAPACITY];

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

/* The free slot, else the oldest one. */
static size_t slotFor(time_t const *since, int (*isFree)(size_t)) {
    size_t oldest = 0;
    for (size_t i = 0; i < STORE_CAPACITY; ++i) {
        if (isFree(i)) {
            return i;
        }
        if (since[i] < since[oldest]) {
            oldest = i;
        }
    }
    return oldest;
}

static int pendingFree(size_t i) {
    return pending[i].id[0] == '\0';
}

static int sessionFree(size_t i) {
    return sessions[i].id[0] == '\0';
}

int storePendingAdd(struct PendingLogin const *login) {
    pthread_mutex_lock(&lock);
    size_t slot = slotFor(pendingSince, pendingFree);
    pending[slot] = *login;
    pendingSince[slot] = time(NULL);
    pthread_mutex_unlock(&lock);
    return 0;
}

int storePendingTake(char const *id, struct PendingLogin *out) {
    int found = -1;
    time_t now = time(NULL);
    pthread_mutex_lock(&lock);
    for (size_t i = 0; i < STORE_CAPACITY && found != 0; ++i) {
        if (!pendingFree(i) && strcmp(pending[i].id, id) == 0) {
            found = now - pendingSince[i] <= PENDING_LIFETIME ? 0 : -1;
            *out = pending[i];
            memset(&pending[i], 0, sizeof pending[i]);
        }
    }
    pthread_mutex_unlock(&lock);
    return found;
}

int storeSessionAdd(struct Session *session) {
    if (storeRandomId(session->id) != 0) {
        return -1;
    }
    pthread_mutex_lock(&lock);
    size_t slot = slotFor(sessionSince, sessionFree);
    sessions[slot] = *session;
    sessionSince[slot] = time(NULL);
    pthread_mutex_unlock(&lock);
    return 0;
}

static struct Session *findSession(char const *id) {
    for (size_t i = 0; i < STORE_CAPACITY; ++i) {
        if (!sessionFree(i) && strcmp(sessions[i].id, id) == 0) {
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

int storeSessionRenew(char const *id, char const *value, long long expiry) {
    pthread_mutex_lock(&lock);
    struct Session *session = findSession(id);
    if (session) {
        snprintf(session->value, sizeof session->value, "%s", value);
        session->expiry = expiry;
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
