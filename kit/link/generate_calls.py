#!/usr/bin/env python3
"""Makes the typed calls of a link from commands.toml:

  generate_calls.py header COMMANDS   ptz_kit_link_calls.h
  generate_calls.py source COMMANDS   ptz_kit_link_calls.cpp
"""
import pathlib
import sys

sys.dont_write_bytecode = True
sys.path.insert(0, str(pathlib.Path(__file__).parent.parent / 'protocol'))
from description import camel, load  # noqa: E402
from generate import NOTICE  # noqa: E402


class Call:
    """A command as three functions."""

    def __init__(self, protocol, number, command):
        self.number = number
        self.name = command['name']
        self.doc = command['doc']
        self.value = command['value']
        kinds = {message.kind for message in protocol.messages if message.command is command}
        self.prefix = f'ptz_kit_link_{self.name}'
        self.request = f'const PTZKit{camel(self.name)}Request *request, ' if 'request' in kinds else ''
        self.reply = f'PTZKit{camel(self.name)}Reply' if 'reply' in kinds else None
        self.result = f'{self.reply} *' if self.reply else 'gboolean '

    def request_doc(self):
        return ' * @request: the request; borrowed\n' if self.request else ''

    def returns(self):
        if self.reply:
            return (f'(transfer full) (nullable): the reply, for ptz_kit_{self.name}_reply_free(); `NULL` with @error set,\n'
                    ' *   see ptz_kit_link_call()')
        return '`TRUE` if the driver has obeyed; `FALSE` with @error set, see ptz_kit_link_call()'


def declarations(call):
    return f'''
/**
 * {call.prefix}:
 * @link: a link; borrowed
{call.request_doc()} * @deadline_ms: how long the reply may take, in milliseconds; 0 for ten seconds
 * @cancellable: (nullable): cancels the call; borrowed
 * @error: return location for an error, or `NULL`
 *
 * Sends `{call.value}` and waits for the reply. {call.doc}
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: {call.returns()}
 */
PTZ_KIT_API {call.result}{call.prefix} (PTZKitLink *link, {call.request}guint deadline_ms, GCancellable *cancellable,
  GError **error);

/**
 * {call.prefix}_async:
 * @link: a link; borrowed
{call.request_doc()} * @deadline_ms: how long the reply may take, in milliseconds; 0 for ten seconds
 * @cancellable: (nullable): cancels the call; borrowed
 * @callback: (scope async) (nullable): called when the call is over
 * @user_data: passed to @callback; borrowed
 *
 * Sends `{call.value}`. {call.doc}
 *
 * Thread: any; @callback runs in the caller's thread-default main context.
 *
 * Since: 0.1
 */
PTZ_KIT_API void {call.prefix}_async (PTZKitLink *link, {call.request}guint deadline_ms, GCancellable *cancellable,
  GAsyncReadyCallback callback, gpointer user_data);

/**
 * {call.prefix}_finish:
 * @link: the link of the call; borrowed
 * @result: what the callback was given; borrowed
 * @error: return location for an error, or `NULL`
 *
 * Thread: any.
 *
 * Since: 0.1
 *
 * Returns: {call.returns()}
 */
PTZ_KIT_API {call.result}{call.prefix}_finish (PTZKitLink *link, GAsyncResult *result, GError **error);
'''


def definitions(call):
    request = 'request' if call.request else 'nullptr'

    def result(expression):
        return f'static_cast<{call.reply} *>({expression})' if call.reply else f'{expression} != nullptr'

    blocking = result(f'call(link, {call.number}, {request}, deadline_ms, cancellable, error)')
    finish = result(f'call_finish(link, {call.number}, result, error)')
    return f'''
{call.result}{call.prefix}(PTZKitLink *link, {call.request}guint deadline_ms, GCancellable *cancellable, GError **error) {{
  return {blocking};
}}
void {call.prefix}_async(PTZKitLink *link, {call.request}guint deadline_ms, GCancellable *cancellable,
    GAsyncReadyCallback callback, gpointer user_data) {{
  call_async(link, {call.number}, {request}, deadline_ms, cancellable, callback, user_data);
}}
{call.result}{call.prefix}_finish(PTZKitLink *link, GAsyncResult *result, GError **error) {{
  return {finish};
}}
'''


def calls_of(protocol):
    return [Call(protocol, number, command) for number, command in enumerate(protocol.commands)
            if command['name'] != 'error']


def make_header(protocol):
    return f'''{NOTICE}/* ptz_kit_link_calls.h - every command of a driver as a blocking and an asynchronous call of PTZKitLink. */
#pragma once

#include <ptz_kit_link.h>

G_BEGIN_DECLS
{''.join(map(declarations, calls_of(protocol)))}
G_END_DECLS
'''


def make_source(protocol):
    return f'''{NOTICE}#include "ptz_kit_link_calls.h"

#include "link/link_calls.h"

using namespace ptz_kit;
{''.join(map(definitions, calls_of(protocol)))}'''


def main(arguments):
    makers = {'header': make_header, 'source': make_source}
    if len(arguments) != 2 or arguments[0] not in makers:
        sys.exit(__doc__)
    sys.stdout.write(makers[arguments[0]](load(arguments[1])))


if __name__ == '__main__':
    main(sys.argv[1:])
