#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include "internal.h"

static size_t slot(const struct pp_table *t, pid_t pid) {
  return ((uint32_t)pid * 2654435761u) & (t->nbuckets - 1);
}

int pp_table_init(struct pp_table *t) {
  t->nbuckets = 1024;
  t->count = 0;
  t->buckets = calloc(t->nbuckets, sizeof *t->buckets);
  return t->buckets ? 0 : ENOMEM;
}

static void free_proc(struct pp_proc *p) {
  free(p->name);
  free(p->path);
  free(p);
}

void pp_table_free(struct pp_table *t) {
  if (!t->buckets) return;
  for (size_t i = 0; i < t->nbuckets; i++) {
    struct pp_proc *p = t->buckets[i];
    while (p) {
      struct pp_proc *next = p->next;
      free_proc(p);
      p = next;
    }
  }
  free(t->buckets);
  t->buckets = NULL;
  t->count = 0;
}

struct pp_proc *pp_table_find(struct pp_table *t, pid_t pid) {
  for (struct pp_proc *p = t->buckets[slot(t, pid)]; p; p = p->next) {
    if (p->pid == pid) return p;
  }
  return NULL;
}

/* Doubling keeps chains short; a failed grow only costs speed. */
static void grow(struct pp_table *t) {
  size_t n = t->nbuckets * 2;
  struct pp_proc **b = calloc(n, sizeof *b);
  if (!b) return;
  struct pp_table bigger = {b, n, t->count};
  for (size_t i = 0; i < t->nbuckets; i++) {
    struct pp_proc *p = t->buckets[i];
    while (p) {
      struct pp_proc *next = p->next;
      size_t s = slot(&bigger, p->pid);
      p->next = b[s];
      b[s] = p;
      p = next;
    }
  }
  free(t->buckets);
  *t = bigger;
}

struct pp_proc *pp_table_put(struct pp_table *t, pid_t pid, unsigned long long start,
                             const char *name, const char *path) {
  char *n = strdup(name ? name : "");
  char *p = strdup(path ? path : "");
  if (!n || !p) {
    free(n);
    free(p);
    return NULL;
  }
  struct pp_proc *e = pp_table_find(t, pid);
  if (!e) {
    e = calloc(1, sizeof *e);
    if (!e) {
      free(n);
      free(p);
      return NULL;
    }
    e->pid = pid;
    size_t s = slot(t, pid);
    e->next = t->buckets[s];
    t->buckets[s] = e;
    if (++t->count > t->nbuckets * 2) grow(t);
  } else {
    free(e->name);
    free(e->path);
  }
  e->start = start;
  e->name = n;
  e->path = p;
  return e;
}

void pp_table_remove(struct pp_table *t, pid_t pid) {
  for (struct pp_proc **pp = &t->buckets[slot(t, pid)]; *pp; pp = &(*pp)->next) {
    if ((*pp)->pid == pid) {
      struct pp_proc *dead = *pp;
      *pp = dead->next;
      free_proc(dead);
      t->count--;
      return;
    }
  }
}

void pp_table_sweep(struct pp_table *t, unsigned int generation,
                    void (*gone)(struct pp_proc *p, void *arg), void *arg) {
  for (size_t i = 0; i < t->nbuckets; i++) {
    struct pp_proc **pp = &t->buckets[i];
    while (*pp) {
      struct pp_proc *p = *pp;
      if (p->seen != generation) {
        if (gone) gone(p, arg);
        *pp = p->next;
        free_proc(p);
        t->count--;
      } else {
        pp = &p->next;
      }
    }
  }
}
