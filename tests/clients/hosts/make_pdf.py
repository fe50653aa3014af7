#!/usr/bin/env python3
"""A PDF of one page that says "A letter", for those who are to sign one.

    make_pdf.py FILE
"""
import sys

TEXT = b"BT /F1 24 Tf 72 720 Td (A letter) Tj ET"
OBJECTS = [
    b"<< /Type /Catalog /Pages 2 0 R >>",
    b"<< /Type /Pages /Kids [3 0 R] /Count 1 >>",
    b"<< /Type /Page /Parent 2 0 R /MediaBox [0 0 595 842] /Contents 4 0 R /Resources << /Font << /F1 5 0 R >> >> >>",
    b"<< /Length %d >>\nstream\n%s\nendstream" % (len(TEXT), TEXT),
    b"<< /Type /Font /Subtype /Type1 /BaseFont /Helvetica >>",
]


def document():
    content = b"%PDF-1.4\n"
    places = []
    for number, body in enumerate(OBJECTS, start=1):
        places.append(len(content))
        content += b"%d 0 obj\n%s\nendobj\n" % (number, body)
    table = b"xref\n0 %d\n0000000000 65535 f \n" % (len(OBJECTS) + 1)
    table += b"".join(b"%010d 00000 n \n" % place for place in places)
    end = b"trailer\n<< /Size %d /Root 1 0 R >>\nstartxref\n%d\n%%%%EOF\n" % (len(OBJECTS) + 1, len(content))
    return content + table + end


if __name__ == "__main__":
    with open(sys.argv[1], "wb") as file:
        file.write(document())
