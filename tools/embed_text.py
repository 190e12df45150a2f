"""Writes a text file as the definition of a C++ constant: python3 embed_text.py FILE OUTPUT"""
import sys

with open(sys.argv[1], encoding="utf-8") as file:
    text = file.read()
with open(sys.argv[2], "w", encoding="utf-8") as file:
    file.write(f'static constexpr char embedded_text[] = R"embedded({text})embedded";\n')
