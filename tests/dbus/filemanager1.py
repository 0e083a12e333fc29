'''A file manager on the session bus for the workspace tests.

Load with: python3 -m dbusmock --template tests/dbus/filemanager1.py -l LOG
Every ShowItems call is written to LOG as: ShowItems ["file:///..."] ""
'''

BUS_NAME = 'org.freedesktop.FileManager1'
MAIN_OBJ = '/org/freedesktop/FileManager1'
MAIN_IFACE = 'org.freedesktop.FileManager1'
SYSTEM_BUS = False


def load(mock, parameters):
    mock.AddMethods(MAIN_IFACE, [
        ('ShowItems', 'ass', '', ''),
        ('ShowFolders', 'ass', '', ''),
        ('ShowItemProperties', 'ass', '', ''),
    ])
