"""What is wrong with a description of messages is an error that names the place: description_test.py GENERATE COMMANDS"""
import copy
import pathlib
import subprocess
import sys
import tempfile
import tomllib
import unittest

sys.dont_write_bytecode = True
GENERATE, COMMANDS = sys.argv[1:]
sys.path.insert(0, str(pathlib.Path(GENERATE).parent))
from description import DescriptionError, Protocol  # noqa: E402

GOOD = {
    'version': 1,
    'limits': {'body_bytes': 100, 'presets': 1, 'preset_name_bytes': 2},
    'error': [{'name': 'device', 'code': 8, 'doc': 'it fails'}],
    'record': [{'name': 'lamp', 'doc': 'A lamp.', 'fields': [{'name': 'number', 'type': 'u32', 'doc': 'its number'}]}],
    'command': [{'name': 'light', 'value': 'LIGHT', 'doc': 'Switches lamps.', 'errors': ['device'], 'request': [
        {'name': 'speed', 'type': 'u8', 'min': 1, 'max': 100, 'doc': 'how fast'},
        {'name': 'place', 'type': 'i32', 'per_axis': 'place', 'doc': 'where it shines'},
        {'name': 'lamps', 'type': 'list:lamp', 'element': 'lamp', 'doc': 'which lamps'},
        {'name': 'title', 'type': 'text', 'bytes': [1, 8], 'doc': 'a title'},
    ]}],
    'left_out': [{'value': 'DARK', 'reason': 'There is no dark.'}],
}
SPEED, PLACE, LAMPS, TITLE = range(4)


class Description(unittest.TestCase):
    def setUp(self):
        self.description = copy.deepcopy(GOOD)
        self.command = self.description['command'][0]
        self.fields = self.command['request']

    def error(self):
        with self.assertRaises(DescriptionError) as raised:
            Protocol(self.description)
        return str(raised.exception)

    def test_good_description_has_no_error(self):
        Protocol(GOOD)

    def test_description_of_project_has_no_error(self):
        with open(COMMANDS, 'rb') as file:
            self.assertTrue(Protocol(tomllib.load(file)).commands)

    def test_missing_key_is_error_with_owner(self):
        del self.fields[SPEED]['doc']
        self.assertEqual(self.error(), 'light_request: field speed: missing keys: doc')

    def test_unknown_key_is_error_at_every_level(self):
        for table, where in ((self.description, 'description'), (self.command, 'command light'),
                             (self.description['error'][0], 'error device'),
                             (self.description['record'][0], 'record lamp'),
                             (self.description['left_out'][0], 'left_out DARK'),
                             (self.fields[SPEED], 'light_request: field speed')):
            with self.subTest(where):
                table['colour'] = 1
                self.assertEqual(self.error(), f'{where}: unknown keys: colour')
                del table['colour']

    def test_type_and_unit_must_be_known(self):
        self.fields[SPEED]['unit'] = 'knots'
        self.assertEqual(self.error(), 'light_request: field speed: unknown unit knots')
        self.fields[SPEED]['type'] = 'u64'
        self.assertEqual(self.error(), 'light_request: field speed: unknown type u64')

    def test_record_of_list_must_be_known(self):
        self.fields[LAMPS]['type'] = 'list:torch'
        self.assertEqual(self.error(), 'light_request: field lamps: no record torch')

    def test_inlined_record_must_be_known(self):
        self.fields[SPEED] = {'name': 'torch', 'type': 'torch', 'inline': True, 'doc': 'a torch'}
        self.assertEqual(self.error(), 'light_request: no record torch')

    def test_list_needs_name_of_elements(self):
        del self.fields[LAMPS]['element']
        self.assertIn('has the name of its elements', self.error())

    def test_bounds_must_lie_within_type_and_in_order(self):
        for bounds in ({'min': 101}, {'max': 256}, {'min': -1}):
            with self.subTest(bounds):
                self.fields[SPEED] = GOOD['command'][0]['request'][SPEED] | bounds
                self.assertIn('is no range of u8', self.error())

    def test_key_of_another_type_is_error(self):
        self.fields[TITLE]['max'] = 3
        self.assertEqual(self.error(), 'light_request: field title: only a number has max')
        del self.fields[TITLE]['max']
        self.fields[SPEED]['bytes'] = [1, 2]
        self.assertEqual(self.error(), 'light_request: field speed: only a text has a length in bytes')

    def test_field_per_axis_must_be_i32(self):
        self.fields[PLACE]['type'] = 'u16'
        self.assertEqual(self.error(), 'light_request: field place: a field per axis is an i32')

    def test_group_must_be_of_neighbours(self):
        self.fields.append({'name': 'again', 'type': 'i32', 'per_axis': 'place', 'doc': 'once more'})
        self.assertIn('place', self.error())

    def add_later_field(self, **keys):
        self.description['version'] = 2
        self.fields.append({'name': 'tone', 'type': 'u8', 'since': 2, 'default': 1, 'doc': 'a tone'} | keys)

    def test_field_of_later_version_needs_default(self):
        self.add_later_field()
        Protocol(self.description)
        del self.fields[-1]['default']
        self.assertEqual(self.error(),
                         'light_request: field tone: a field that is newer than its message, and no other, has a default')
        self.fields[-1] |= {'since': 1, 'default': 1}
        self.assertIn('no other, has a default', self.error())

    def test_default_must_be_within_bounds_or_empty(self):
        self.add_later_field(min=2)
        self.assertEqual(self.error(), 'light_request: field tone: its default is out of range')
        for keys in ({'type': 'text', 'default': 'a'}, {'type': 'text', 'default': '', 'bytes': [1, 2]},
                     {'type': 'list:lamp', 'element': 'lamp', 'default': [1]}):
            with self.subTest(keys):
                del self.fields[-1]
                self.add_later_field(**keys)
                self.assertEqual(self.error(), 'light_request: field tone: its default must be empty')

    def test_later_fields_must_stand_at_end_of_message_that_has_others(self):
        self.add_later_field()
        self.fields.append({'name': 'again', 'type': 'u8', 'doc': 'a field of the first version'})
        self.assertEqual(self.error(), 'light_request: newer fields must stand at the end')
        del self.fields[:-2], self.fields[-1]
        self.assertEqual(self.error(), 'light_request: a message without fields cannot grow')

    def test_later_field_cannot_join_group(self):
        self.fields[:] = [self.fields[PLACE]]
        self.add_later_field(type='i32', per_axis='place')
        self.assertEqual(self.error(), 'light_request: groups of fields of several versions: more than once: place')

    def test_record_cannot_grow(self):
        self.description['version'] = 2
        fields = self.description['record'][0]['fields']
        fields.append({'name': 'tone', 'type': 'u8', 'since': 2, 'default': 1, 'doc': 'a tone'})
        self.assertIn('record', self.error())
        self.assertIn('cannot grow', self.error())

    def test_version_of_field_must_exist(self):
        self.add_later_field(since=3)
        self.assertEqual(self.error(), 'light_request: field tone: since is not within 1 to 2')

    def test_fields_of_later_command_need_no_default(self):
        self.description['version'] = 2
        self.command['since'] = 2
        self.assertEqual({field.since for field in Protocol(self.description).messages[0].fields}, {2})

    def test_names_values_and_codes_must_be_unique(self):
        self.fields.append(dict(self.fields[SPEED]))
        self.assertEqual(self.error(), 'light_request: more than once: speed')
        self.description['error'].append({'name': 'other', 'code': 8, 'doc': 'as device'})
        self.assertEqual(self.error(), 'codes of errors: more than once: 8')
        self.description['left_out'][0]['value'] = 'LIGHT'
        self.description['error'].pop()
        self.assertEqual(self.error(), 'values of commands: more than once: LIGHT')

    def test_message_must_have_fields(self):
        self.command['request'] = []
        self.assertEqual(self.error(), 'light_request: no fields')

    def test_errors_of_command_must_be_known(self):
        self.command['errors'] = ['device', 'fire']
        self.assertEqual(self.error(), 'command light: no error fire')

    def test_error_code_must_be_positive(self):
        self.description['error'][0]['code'] = 0
        self.assertEqual(self.error(), 'error device: its code is below 1')

    def test_limits_must_be_known(self):
        self.description['limits']['heads'] = 9
        self.assertEqual(self.error(), 'limits: they are not body_bytes, presets, preset_name_bytes')

    def test_generator_ends_with_one_line(self):
        with tempfile.NamedTemporaryFile('w', suffix='.toml') as file:
            file.write('version = 1\n')
            file.flush()
            made = subprocess.run([sys.executable, GENERATE, 'header', file.name], capture_output=True, text=True,
                                  check=False)
            self.assertEqual(made.returncode, 1)
            self.assertEqual(made.stdout, '')
            self.assertEqual(made.stderr,
                             f'{file.name}: description: missing keys: command, error, left_out, limits, record\n')


if __name__ == '__main__':
    unittest.main(argv=sys.argv[:1])
