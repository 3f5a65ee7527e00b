/* Clients of a table service, all in one thread, each with one request at a time: they speak Postfix's
   protocol of socketmap or of proxymap.

   Usage: table_clients socketmap|proxymap SOCKET TABLE CLIENTS < KEYS

   Each line of the input is a key and, behind a tab, the value that it must have. Prints the requests,
   the seconds, and the 50th and the 99th percentile of the milliseconds of a request. */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

enum { LONGEST = 4096 };

struct Client {
    int socket;
    int isGreeted; /* proxymap's server speaks first */
    size_t key;    /* index of the one that is asked for */
    double sentAt;
    size_t size; /* of the reply so far */
    char reply[LONGEST];
};

static int isProxy;
static char const* table;
static char** keys; /* key and value, one after the other */
static size_t count;
static size_t next;
static double* times;

static void fail(char const* what)
{
    fprintf(stderr, "table_clients: %s: %s\n", what, errno == 0 ? "wrong reply" : strerror(errno));
    exit(1);
}

static double now(void)
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

static void readKeys(void)
{
    char line[LONGEST];
    size_t room = 0;
    while (fgets(line, sizeof line, stdin) != NULL) {
        char* const tab = strchr(line, '\t');
        if (tab == NULL) {
            fail("a line without a tab");
        }
        line[strcspn(line, "\n")] = '\0';
        *tab = '\0';
        if (count == room) {
            room = room == 0 ? 1024 : 2 * room;
            keys = realloc(keys, 2 * room * sizeof *keys);
        }
        keys[2 * count] = strdup(line);
        keys[2 * count + 1] = strdup(tab + 1);
        ++count;
    }
    times = calloc(count, sizeof *times);
}

/* Sends the next key; returns 0 if there is none. */
static int ask(struct Client* client)
{
    if (next == count) {
        return 0;
    }
    client->key = next++;
    client->size = 0;
    char const* const key = keys[2 * client->key];
    char request[LONGEST];
    int size = 0;
    if (isProxy) { /* names and values, each ends in NUL; an empty name ends the request */
        size = snprintf(request, sizeof request, "request%clookup%ctable%c%s%cflags%c64%ckey%c%s%c",
                        0, 0, 0, table, 0, 0, 0, 0, key, 0) +
               1;
    } else {
        size = snprintf(request, sizeof request, "%zu:%s %s,", strlen(table) + 1 + strlen(key), table,
                        key);
    }
    client->sentAt = now();
    if (write(client->socket, request, (size_t)size) != size) {
        fail("write");
    }
    return 1;
}

/* The end of a reply of proxymap: an empty name, where a name is due. 0: it is not whole. */
static size_t endOfAttributes(struct Client const* client)
{
    size_t begin = 0;
    for (int isName = 1;; isName = !isName) {
        char const* const end = memchr(client->reply + begin, '\0', client->size - begin);
        if (end == NULL) {
            return 0;
        }
        size_t const next_ = (size_t)(end - client->reply) + 1;
        if (isName && next_ == begin + 1) {
            return next_;
        }
        begin = next_;
    }
}

/* The value in a whole reply; NULL if it is not whole. */
static char const* valueOf(struct Client* client)
{
    if (isProxy) {
        if (endOfAttributes(client) == 0) {
            return NULL;
        }
        char const* const status = client->reply + sizeof "status";
        return strcmp(status, "0") == 0 ? status + sizeof "0" + sizeof "value" : "";
    }
    if (client->size == 0 || client->reply[client->size - 1] != ',') {
        return NULL;
    }
    client->reply[client->size - 1] = '\0';
    char* const colon = strchr(client->reply, ':');
    return colon != NULL && strncmp(colon + 1, "OK ", 3) == 0 ? colon + 4 : "";
}

/* Takes what has come; returns 0 if the client is done. */
static int take(struct Client* client)
{
    ssize_t const got =
        read(client->socket, client->reply + client->size, LONGEST - 1 - client->size);
    if (got <= 0) {
        fail("read");
    }
    client->size += (size_t)got;
    client->reply[client->size] = '\0';
    if (isProxy && !client->isGreeted) {
        if (endOfAttributes(client) == 0) {
            return 1;
        }
        client->isGreeted = 1;
        return ask(client);
    }
    char const* const value = valueOf(client);
    if (value == NULL) {
        return 1;
    }
    errno = 0;
    if (strcmp(value, keys[2 * client->key + 1]) != 0) {
        fail(keys[2 * client->key]);
    }
    times[client->key] = (now() - client->sentAt) * 1000;
    return ask(client);
}

static void open_(struct Client* client, char const* path)
{
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    if (strlen(path) >= sizeof address.sun_path) {
        fail("the path is too long");
    }
    strcpy(address.sun_path, path);
    memset(client, 0, sizeof *client);
    client->socket = socket(AF_UNIX, SOCK_STREAM, 0);
    if (connect(client->socket, (struct sockaddr*)&address, sizeof address) != 0) {
        fail(path);
    }
}

static int isLess(void const* left, void const* right)
{
    double const one = *(double const*)left;
    double const another = *(double const*)right;
    return one < another ? -1 : one > another;
}

int main(int argc, char** argv)
{
    if (argc != 5) {
        fprintf(stderr, "Usage: table_clients socketmap|proxymap SOCKET TABLE CLIENTS < KEYS\n");
        return 2;
    }
    isProxy = strcmp(argv[1], "proxymap") == 0;
    table = argv[3];
    size_t const clients = strtoul(argv[4], NULL, 10);
    readKeys();
    struct Client* const all = calloc(clients, sizeof *all);
    int const poll = epoll_create1(0);
    for (size_t i = 0; i < clients; ++i) {
        open_(&all[i], argv[2]);
        struct epoll_event event = {.events = EPOLLIN, .data.ptr = &all[i]};
        epoll_ctl(poll, EPOLL_CTL_ADD, all[i].socket, &event);
    }
    double const begin = now();
    size_t busy = 0;
    for (size_t i = 0; i < clients; ++i) {
        busy += isProxy || ask(&all[i]) ? 1 : 0;
    }
    while (busy > 0) {
        struct epoll_event events[64];
        int const ready = epoll_wait(poll, events, 64, -1);
        for (int i = 0; i < ready; ++i) {
            struct Client* const client = events[i].data.ptr;
            if (!take(client)) {
                epoll_ctl(poll, EPOLL_CTL_DEL, client->socket, NULL);
                --busy;
            }
        }
    }
    double const seconds = now() - begin;
    qsort(times, count, sizeof *times, isLess);
    printf("%zu %.6f %.4f %.4f\n", count, seconds, times[count / 2], times[count * 99 / 100]);
    return 0;
}
