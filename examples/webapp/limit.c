/* A fixed table of buckets. An address whose bucket is full again is as good as absent, so
 * its slot is reused; when every slot holds an address that used its tokens recently, the
 * fullest bucket makes room, which favours nobody under a flood from many addresses (the
 * pending store's bound holds then). */
#include "limit.h"

#include <arpa/inet.h>
#include <pthread.h>
#include <string.h>
#include <time.h>

#define LIMIT_SLOTS 1024

struct Bucket {
    char address[INET6_ADDRSTRLEN];
    double tokens;
    double at; /* when `tokens` was counted, in seconds of the monotonic clock */
};

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static struct Bucket buckets[LIMIT_SLOTS];
static double capacity = 1;
static double perSecond = 1.0 / 60;

void limitStart(int perMinute) {
    capacity = perMinute > 0 ? perMinute : 1;
    perSecond = capacity / 60.0;
}

static double now(void) {
    struct timespec clock;
    clock_gettime(CLOCK_MONOTONIC, &clock);
    return (double)clock.tv_sec + (double)clock.tv_nsec / 1e9;
}

static double tokensAt(struct Bucket const *bucket, double when) {
    double tokens = bucket->tokens + (when - bucket->at) * perSecond;
    return tokens < capacity ? tokens : capacity;
}

int limitTake(char const *address) {
    double when = now();
    pthread_mutex_lock(&lock);
    struct Bucket *found = NULL;
    struct Bucket *spare = NULL;
    double spareTokens = -1;
    for (size_t i = 0; i < LIMIT_SLOTS && found == NULL; ++i) {
        struct Bucket *bucket = &buckets[i];
        if (bucket->address[0] != '\0' && strcmp(bucket->address, address) == 0) {
            found = bucket;
            continue;
        }
        double tokens = bucket->address[0] == '\0' ? capacity : tokensAt(bucket, when);
        if (tokens > spareTokens) {
            spare = bucket;
            spareTokens = tokens;
        }
    }
    if (found == NULL) {
        found = spare;
        strncpy(found->address, address, sizeof found->address - 1);
        found->address[sizeof found->address - 1] = '\0';
        found->tokens = capacity;
        found->at = when;
    }
    double tokens = tokensAt(found, when);
    int wait = 0;
    if (tokens >= 1) {
        tokens -= 1;
    } else {
        wait = (int)((1 - tokens) / perSecond) + 1;
    }
    found->tokens = tokens;
    found->at = when;
    pthread_mutex_unlock(&lock);
    return wait;
}
