/* The secret that the login servers and the node-role service share: whoever presents it may
 * hand the service a node configuration. */
#ifndef QXSS_WEBAPP_SECRET_H
#define QXSS_WEBAPP_SECRET_H

#define SECRET_SIZE 256
#define SECRET_MIN_LENGTH 16

/* Reads the first line of `path` (without its line end) into `out`. 0, or -1 with a message on
 * stderr when the file cannot be read or the secret is shorter than SECRET_MIN_LENGTH. */
int secretRead(char const *path, char out[SECRET_SIZE]);

/* Whether `given` equals `secret`, in a time that does not tell where they differ. */
int secretEquals(char const *secret, char const *given);

#endif
