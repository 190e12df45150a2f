#!/usr/bin/env python3
"""What doc_comments.py asks of a comment, each rule with a comment that breaks just that one."""
import unittest

import doc_comments

GOOD = '''
/**
 * ptz_lamp_load:
 * @lamp: a lamp
 * @path: (type filename): a file
 * @names: (element-type utf8): the names; borrowed
 * @count: (out): how many were read
 * @handler: (scope call): receives each name
 * @user_data: passed to @handler; borrowed
 *
 * Loads it.
 *
 * Thread: any.
 *
 * Returns: (transfer full) (nullable): the text
 */
PTZ_API gchar *ptz_lamp_load (PTZLamp *lamp, const gchar *path, GList *names, guint32 *count,
                              void (*handler) (const gchar *name, gpointer user_data),
                              gpointer user_data) G_GNUC_WARN_UNUSED_RESULT;
'''
PLAIN = '''
/**
 * ptz_lamp_log:
 * @format: a format
 * @...: its arguments
 *
 * Thread: any.
 */
PTZ_API void ptz_lamp_log (const gchar *format, ...) G_GNUC_PRINTF (1, 2);
'''


def said(text, symbols):
    return list(doc_comments.check(symbols, [('ptz_lamp.h', text)]))


class DocComments(unittest.TestCase):
    def broken(self, old, new, complaint, text=GOOD, symbol='ptz_lamp_load'):
        self.assertEqual(text.count(old), 1)
        self.assertEqual(said(text.replace(old, new), [symbol]), ['ptz_lamp.h: ' + complaint])

    def test_a_whole_comment_is_passed_in_silence(self):
        self.assertEqual(said(GOOD + PLAIN, ['ptz_lamp_load', 'ptz_lamp_log']), [])

    def test_a_comment_about_something_else_is_none(self):
        self.broken('ptz_lamp_load:', 'ptz_lamp_lood:', 'ptz_lamp_load has no comment of its own')

    def test_a_plain_comment_is_none(self):
        self.broken('/**', '/*', 'ptz_lamp_load has no comment of its own')

    def test_a_thread_line_is_needed(self):
        self.broken(' * Thread: any.\n', '', 'ptz_lamp_load has no "Thread:" line')
        self.broken('Thread: any.', 'Thread:', 'ptz_lamp_load has no "Thread:" line')

    def test_a_result_is_described(self):
        self.broken(' * Returns: (transfer full) (nullable): the text\n', '', 'ptz_lamp_load has no "Returns:"')

    def test_a_pointer_result_says_who_frees_it(self):
        self.broken('(transfer full) (nullable)', '(nullable)', 'ptz_lamp_load has no (transfer) at its "Returns:"')

    def test_what_has_no_result_describes_none(self):
        self.broken('Thread: any.\n', 'Thread: any.\n *\n * Returns: nothing\n',
                    'ptz_lamp_log describes a result, but has none', PLAIN, 'ptz_lamp_log')

    def test_each_parameter_is_described_by_its_name(self):
        self.broken('@count', '@number', 'ptz_lamp_load describes the parameters (lamp, path, names, number, handler, '
                    'user_data), but has (lamp, path, names, count, handler, user_data)')

    def test_a_parameter_without_words_is_not_described(self):
        self.broken(': (out): how many were read', ': (out):', 'ptz_lamp_load says nothing about @count')

    def test_a_pointer_handed_over_has_an_owner(self):
        self.broken('the names; borrowed', 'the names', 'ptz_lamp_load does not say who owns @names')
        self.broken('passed to @handler; borrowed', 'passed on', 'ptz_lamp_load does not say who owns @user_data')

    def test_headers_and_exported_names_are_the_same(self):
        self.assertEqual(said(PLAIN, ['ptz_lamp_log', 'ptz_x']), ['ptz_x is exported and in no header'])
        self.assertEqual(said(PLAIN, []), ['ptz_lamp_log is in a header and not exported'])


if __name__ == '__main__':
    unittest.main()
