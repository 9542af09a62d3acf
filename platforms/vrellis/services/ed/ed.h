/*
 * Conditional debug facility: components register their debug points here, and the points are switched on and off
 * while the process runs.
 *
 * A point is a static record. Its owner tests `flags` at each pass and calls ed_print_debug() or ed_slow_debugs() when
 * a message is due; by default messages are off and trace records on. A message is one line:
 *
 *   2026-03-01 14:05:09.123456 4711/4713 libmpls_egress_encap_db event id 7: vrl_insert_mpls_tunnel_entry return rc 0
 *   local time                 process/  component               category    message, its pieces joined, with values
 *                              thread                            ("line 188" without a catalogue: ed_catalogue.h)
 *
 * Printing takes no lock, and a line that stderr cannot take at once is dropped and counted, as oxa_errmsg.h says.
 *
 * QUERIES switch points: by ed_query(), and by the environment variable ED_DEBUG when a component registers. A query is
 * one statement or several, separated by ';' or newlines; a statement is any number of conditions, which must all hold,
 * and then one change of flags:
 *
 *   func vrl_insert_* category error +p      messages of the insert's error points on
 *   text "out of range" +s                   at most 10 messages a second of each such point
 *   id 50-68 -t                              no trace records of these
 *   =_                                       every point as its component stored it
 *
 *   condition        holds for a point
 *   component GLOB   of this component
 *   func GLOB        in this function            (needs the component's catalogue)
 *   category GLOB    of this category: error, event, init
 *   text STRING      whose message, its pieces joined, contains the string   (needs the catalogue)
 *   line N or N-M    on this line, on one of these lines
 *   id N or N-M      with this id: its position in ascending order of line, from 0
 *
 * In a GLOB, * stands for any characters and ? for one. Words are separated by blanks; one that holds a blank, ';' or
 * newline is written in double quotes. At most 8 conditions and 4096 bytes.
 *
 *   flag   on                                                       off
 *   p      message on                                               decided by s
 *   s      message decided by the slow rule, unless p is on         no message, unless p is on
 *   t      trace always; the stored state                           trace only with an enabled message, and no message
 *   q      quiet: no message, also with p and s                     message as p and s say; the stored state
 *
 *   +pq    the named flags on           -p   the named flags off
 *   =p     the stored state (p, s and q off, t on, no line filter), then the named flags on; =_ names none
 *
 * t concerns points with a trace point only. With t off and s on, the slow rule paces the trace: it writes a record
 * when the rule would have shown a message.
 */
#ifndef VRELLIS_ED_H
#define VRELLIS_ED_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define ED_STATIC_ASSERT(condition, text) static_assert(condition, text)
extern "C" {
#else
#define ED_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

/* Bits of ed_site_t.flags. */
enum {
  ED_SITE_PRESENT = 0x01,     /* stored on every point */
  ED_SITE_QUIET = 0x02,       /* message suppressed */
  ED_SITE_TRACE_IF_ON = 0x04, /* message suppressed; trace only when the message is enabled */
  ED_SITE_MESSAGE = 0x10,     /* stored on every point: it has a message */
  ED_SITE_TRACE = 0x20,       /* stored on every point that has a trace point */
  ED_SITE_ON = 0x40,          /* message enabled, decided by the point itself */
  ED_SITE_SLOW = 0x80,        /* message decided by ed_slow_debugs() */
  ED_SITE_INVERT = 0x100,     /* invert the decision of the line filter */
  ED_SITE_LINE_FILTER = 0x200 /* on only where `line` names the point's own line */
};

#define ED_LINE_MASK 0xffffffu /* ed_site_t.line: the line */
#define ED_FILTER_SET_SHIFT 24 /* ed_site_t.line: filter_set, 8 bits */
#define ED_NO_TRACE_INDEX 255  /* ed_site_t.trace_index of a point without a trace point */
#define ED_MAX_FLAGS 32        /* debug flags and trace handles a component has room for */

/*
 * Debug point. 32 bytes, in its component's writable data. The component owns it; after registration the facility may
 * change flags and line at any time, and the point reads them afresh at every pass.
 */
typedef struct ed_site {
  uint16_t flags;       /*  0  ED_SITE_... */
  uint8_t category;     /*  2  index of the point's debug flag */
  uint8_t trace_index;  /*  3  index of its trace handle, or ED_NO_TRACE_INDEX */
  uint32_t line;        /*  4  bits 0-23 line filter, initially the point's own line; bits 24-31 filter_set */
  uint32_t num_values;  /*  8  values it reports, 0 to 15 */
  uint32_t zero;        /* 12 */
  struct ed_site *next; /* 16  next point of the chain; NULL at its end */
  uint64_t zero_end;    /* 24 */
} ed_site_t;
ED_STATIC_ASSERT(sizeof(ed_site_t) == 32, "size of a debug point");
ED_STATIC_ASSERT(offsetof(ed_site_t, next) == 16, "ed_site_t.next moved");

/* Debug flag: a category of points. 80 bytes. */
typedef struct ed_flag {
  const char *name; /*  0 */
  uint64_t value;   /*  8  1000, raised to 98304 by registration */
  uint8_t zero[28]; /* 16 */
  uint32_t enabled; /* 44  1 */
  uint8_t zero_end[32];
} ed_flag_t;
ED_STATIC_ASSERT(sizeof(ed_flag_t) == 80, "size of a debug flag");
ED_STATIC_ASSERT(offsetof(ed_flag_t, enabled) == 44, "ed_flag_t.enabled moved");

/* Registration record of a component. 2872 bytes, in its writable data. */
typedef struct ed_component {
  uint32_t zero;                       /*   0 */
  uint32_t trace_tag;                  /*   4  filled by ed_init(); its low 5 bits go into every trace header */
  uint64_t zero_word;                  /*   8 */
  ed_site_t *sites;                    /*  16  head of the chain of points; the head itself is none */
  ed_site_t *perf_sites;               /*  24  head of the chain of performance points */
  uint64_t trace_handle[ED_MAX_FLAGS]; /*  32  filled by ed_init(), one a trace index */
  const char *name;                    /* 288 */
  uint8_t zero_text[12];               /* 296 */
  uint32_t num_flags;                  /* 308 */
  ed_flag_t flag[ED_MAX_FLAGS];        /* 312 */
} ed_component_t;
ED_STATIC_ASSERT(offsetof(ed_component_t, trace_handle) == 32, "ed_component_t.trace_handle moved");
ED_STATIC_ASSERT(offsetof(ed_component_t, name) == 288, "ed_component_t.name moved");
ED_STATIC_ASSERT(offsetof(ed_component_t, num_flags) == 308, "ed_component_t.num_flags moved");
ED_STATIC_ASSERT(offsetof(ed_component_t, flag) == 312, "ed_component_t.flag moved");
ED_STATIC_ASSERT(sizeof(ed_component_t) == 2872, "size of a component");

#define ED_API __attribute__((visibility("default")))

#define ED_MAX_COMPONENTS 31 /* as many as trace headers have tags for, 0 being "not registered" */
#define ED_SLOW_BURST 10u    /* messages that the slow rule shows of one point per ED_SLOW_WINDOW_MS */
#define ED_SLOW_WINDOW_MS 1000u

/*
 * Registers a component, which must stay loaded from then on: gives it a trace tag (1 to 31, by order of registration)
 * and one trace handle a flag (tag << 8 | index + 1), tells the trace facility its name, and applies ED_DEBUG to its
 * points. A statement of ED_DEBUG with a mistake is reported by one line at the sink and left out; the others apply.
 * Registering again does nothing. A component too many is reported and keeps tag 0.
 * Locking: a process-local mutex of the facility, shared with ed_query() and ed_add_catalogue(). The child of a fork
 * may call all three: what another thread was registering at the fork is not registered there, and a query that another
 * thread was applying may have reached only some of the points.
 */
ED_API void ed_init(ed_component_t *component);

/*
 * Prints one message: `values` holds site->num_values values, in the order of the conversions of `format`, the stored
 * text; `line` is the point's own. One call of the sink, no allocation. Keeps errno.
 */
ED_API void ed_print_debug(ed_site_t *site, ed_component_t *component, const uint64_t *values, uint64_t zero,
                           uint32_t line, uint64_t zero_too, const char *format, uint64_t zero_end);

/*
 * The slow path: applies the line filter, then the slow rule, at most ED_SLOW_BURST messages of a point per window, the
 * next one telling how many were suppressed. When the rule says yes, sets *enabled to 1 and, unless the point is quiet
 * or traces only when on, prints. The rule's state is kept for the first 256 points that come here; later ones share
 * it.
 */
ED_API void ed_slow_debugs(ed_site_t *site, ed_component_t *component, int *enabled, const uint64_t *values,
                           uint64_t zero, uint32_t line, uint64_t zero_too, const char *format, uint64_t zero_end);

/*
 * A sink takes one line: `length` bytes, which a newline and a NUL follow. It runs in the thread that passed the point,
 * in several threads at once, and with the database lock held: a sink that waits makes every process wait. It must not
 * call ed_init(), ed_query() or ed_add_catalogue().
 */
typedef void (*ed_sink_fn)(void *context, const char *line, size_t length);

/* Sends lines to `sink` from now on; NULL: to stderr. Threads printing at this moment may still use the old sink. */
ED_API void ed_set_sink(ed_sink_fn sink, void *context);

/* What is wrong with a query. */
typedef struct ed_query_error {
  uint32_t position; /* of the mistake in the query, in bytes from 0 */
  uint32_t num_near; /* names that were perhaps meant, the nearest first */
  char near_name[3][64];
  char text[320]; /* the whole of it as a sentence, with the column (position + 1) and the names */
} ed_query_error_t;

/*
 * Applies a query to the points of all registered components: all of its statements or, if one has a mistake, none.
 * A condition that holds for no point at all is a mistake, and so are conditions that never hold together.
 * Returns: 0, or 22 with the first mistake in `error`, which may be NULL.
 */
ED_API int ed_query(const char *query, ed_query_error_t *error);

/* One point as queries and listings see it. Without a catalogue, function and text are "". */
typedef struct ed_point {
  const char *component;
  const char *category;
  const char *function;
  const char *text; /* stored form */
  uint32_t id;
  uint32_t line;
  uint32_t num_values;
  uint16_t flags; /* ED_SITE_... at this moment */
} ed_point_t;

typedef void (*ed_point_visitor)(void *context, const ed_point_t *point);

/* Visits every point by component in order of registration and then by chain, that is by descending id. No lock. */
ED_API void ed_for_each_point(ed_point_visitor visit, void *context);

/* Writes the letters of the flags that are on, as the query language names them, and a NUL: "pt" or "". */
ED_API void ed_flag_letters(uint16_t flags, char letters[8]);

/*
 * Formats `n` values into the conversions of a stored text, as it stands or with its pieces joined: without their quote
 * characters and the blanks between them. Conversions are d i u x X, with an optional 0, width (at most 2 digits) and l
 * or ll; without l a value's low 32 bits count, with it all 64. %% gives %. All else, and a conversion without a value
 * left, is copied as it stands.
 * Returns: the length of the whole result; when that is `room` or more, the first room - 1 bytes were written. A NUL
 * ends what was written, unless `room` is 0.
 */
ED_API size_t ed_format_stored(char *out, size_t room, const char *stored, const uint64_t *values, unsigned n);
ED_API size_t ed_format_joined(char *out, size_t room, const char *stored, const uint64_t *values, unsigned n);

#ifdef __cplusplus
}
#endif

#endif
