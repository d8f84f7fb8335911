// The sample portrait of the simulated ID card: a drawn 102 x 126 JPEG, as the chip holds it.
#include "devicelib/portable/cards/cards.h"

namespace portable::cards {

const char* samplePortraitBase64()
{
    return
        "/9j/4AAQSkZJRgABAQEAZABkAAD/2wBDAAYEBQYFBAYGBQYHBwYIChAKCgkJChQODwwQFxQYGBcUFhYaHSUfGhsjHBYWICwg"
        "IyYnKSopGR8tMC0oMCUoKSj/2wBDAQcHBwoIChMKChMoGhYaKCgoKCgoKCgoKCgoKCgoKCgoKCgoKCgoKCgoKCgoKCgoKCgo"
        "KCgoKCgoKCgoKCgoKCj/wAARCAB+AGYDASIAAhEBAxEB/8QAHwAAAQUBAQEBAQEAAAAAAAAAAAECAwQFBgcICQoL/8QAtRAA"
        "AgEDAwIEAwUFBAQAAAF9AQIDAAQRBRIhMUEGE1FhByJxFDKBkaEII0KxwRVS0fAkM2JyggkKFhcYGRolJicoKSo0NTY3ODk6"
        "Q0RFRkdISUpTVFVWV1hZWmNkZWZnaGlqc3R1dnd4eXqDhIWGh4iJipKTlJWWl5iZmqKjpKWmp6ipqrKztLW2t7i5usLDxMXG"
        "x8jJytLT1NXW19jZ2uHi4+Tl5ufo6erx8vP09fb3+Pn6/8QAHwEAAwEBAQEBAQEBAQAAAAAAAAECAwQFBgcICQoL/8QAtREA"
        "AgECBAQDBAcFBAQAAQJ3AAECAxEEBSExBhJBUQdhcRMiMoEIFEKRobHBCSMzUvAVYnLRChYkNOEl8RcYGRomJygpKjU2Nzg5"
        "OkNERUZHSElKU1RVVldYWVpjZGVmZ2hpanN0dXZ3eHl6goOEhYaHiImKkpOUlZaXmJmaoqOkpaanqKmqsrO0tba3uLm6wsPE"
        "xcbHyMnK0tPU1dbX2Nna4uPk5ebn6Onq8vP09fb3+Pn6/9oADAMBAAIRAxEAPwD6gooopiCiiigAooooAKKKKACiiigAoooo"
        "AKKKKACiiigAooooAKK8f+L3xr0/wZNJpejRxalrg4kBb91bH/bI6t/sgj3I7/MHivx94n8VyOdb1i6mhY5+zo3lwj/gC4H4"
        "nmk2NI+75db0mKTy5dTsUk6bWuEB/LNXYpEljDxOroejKcg/jX5wRW80oJiikcDqVUmtLQPEOteG7sT6LqV3YTA5PlSFQfZl"
        "6EexBpcw+U/RCivDvgn8bF8U3UWh+JxFb6w/EFwg2x3J/ukfwv8ATg9scA+41RIUUUUAFFFFABRRRQAV5t8evHL+CfBTvYuF"
        "1a/Y29qe6cfNJ/wEdPcivSa8E+LOgv41+M+kaXdBm0fStNF5cjsS8jDb/wACKoPoG9KUnyq44rmdjy34ZfCq48UIuseIpZoN"
        "OlJdEB/e3H+1k9FPr1P617xonhPQNEiVNM0mzgIGN/lhnP1Y5J/E03xHrh0BLWO30XU9R80MFWwgDrGFx945G3rx9DWZYeJv"
        "EF7fW8a+DryC1eRVknuLuNDGhPLbOpwOcV5c5zqa9D04QhT06nYAAAAAADsKytd8O6Rr8Bi1jTra6XGAzp8y/Ruo/A1fvpJo"
        "bK4ltIPtNwkbNHDvCeYwHC7jwMnjPauO/wCEx123/wCQh4I1VPX7NNHcfyxWcU90aSa2Z4x8Ufhxc+CriPV9Fmnk0sSArJn9"
        "5avn5ckds4w3rwecZ+rfhZ4m/wCEv8B6TrEhH2iWLZcAcYlQ7W47ZIz9CK5q1a28UeHSuoafdQWl4jxy2t5H5cqrkqcjJweM"
        "g/Q1U/Zz0260DQ/EmgXpLPpusSRq395THGQR7EfN/wACr0MNUck090cGIpqLutmet0UUV0nMFFFFABRRRQAVw2oWkQ8SahqA"
        "H7+dY4GP+zGW2/8AoZruawNa05g0t1GRs6svfPtXNioycNDow0oqepz1/JNDY3EtrD59wkbNHFu2+YwHC57ZPGa4r4d+I/FO"
        "t317F4l0D+zbeJcxy+W8eWz93DE7uMnI44967yivOTSVrHota3uMWVHkdFbLpjcPTPSvP/8AhKPF/wDwn/8AZf8AwjP/ABJP"
        "O2fa9rf6vP8ArPMzt6c7cZ7da7LSpo5DcOJELyysQNwzgcDj6CtGhNLdBJX6hWh4Qto7XUNSeMfNeMs8n+8qqn8lH5VngEkA"
        "dTXUaRp5sg7SMGkbjjoBW+GjJzujDEyioWZo0UUV6Z5oUUUUAFFFFABTJo1lieN/usCDT6KNw2OJuImgmeNxhlOKy9S1e202"
        "4hjvPMjSUHExX5AfQnsa7jV9OF2vmRYEyj/voelcxcQkFop4/YqwryqtJ05a7HrUasai1Mf+1tDt181buxXH9xlJ/Ic1d0y+"
        "TUbQXEUcqRsSF8xdpYDuPY0kemWEb747G1V/7yxKD/KtO0tZbqTZCufU9hWVr6I1lKKVyxotsbi9UkfJH8x/pXVVXsbVLOAR"
        "pyerN6mrFepQp+zjZ7nlVqntJXWwUUUVsYhRRRQAUUUUAFFBIAyeBXnHi74x+FfD0jwR3L6neLwYrIBlU+7k7fyJPtTSb2E2"
        "luej1yXi1mXU49pI/cj/ANCavFdX/aH1iZmGkaPY2qdjcO0zfptH6V6T4cl1HxHotpq0l/Fqi3KB0kjgW38od4yu5slW3ZOe"
        "/tWOLpS9nsb4Wcfaak/nSf3q6zwiSdNlJOT5x/8AQVrnv7Jvf+eP/j6/41yPxE8V6z4A0+3ubO/tEe4fbHps1r5hkI+9IZA4"
        "IGNoxjrj145MJSn7TVHViqkXT0Z7VRXzvof7RMwdV13Q42U/eks5SpH0Rs5/76FeueDviF4b8XYTSb9RdkZNrOPLlH/AT97/"
        "AICTXpypyjujzVJM6yiiioKCiiigAqC/vLfT7Ke7vZkgtoEMkkjnAVRySanr5z/aZ8ZvLeReFbCXEMQWa9Kn7znlEPsBhj7k"
        "elVCPM7Ck7K5yvxX+LOoeLLiaw0l5bLQgdoQHa9wPVz6f7PT1z28uoortUVFWRzt33CvYP2e/Gf9k6y2gX8mLG/fMBY8Rz9A"
        "Po3A+oHqa8fpyMyOroxVlOQQcEGiUeZWY07O593XdzDZ2k1zdSLFBChkkdjgKoGST+FfG/xH8VTeMPFNzqL7lth+6toz/BED"
        "x+J5J9zXV+Nvirc+IvAWnaOu9L1xjUZOgkCn5cf733j7jHSvLKypU+XVlTlfRBT4pHikWSJ2SRCGVlOCCO4NMorYg+ivgv8A"
        "GCW8ubfQfFs2+aQiO1vnOCx7JJ7ns3fv6177X5819efAjxm/izwiIb6XfqmnEQzEnmRMfI59yAQfdSe9c1Wnb3kawlfRnpVF"
        "FFYGhDe3MVnZz3Vw22GCNpHb0VRkn8hXwbr+qT61rd9qd0cz3czzN7bjnA9h0r7E+M141h8L/EMyZy1v5PHpIyof0aviyumg"
        "tGzKo+gUUUVuZhRRRQAUUUUAFFFFABXpf7Pmuto/xHs4GfFvqKNayA9MkZQ/XcAPxNeaVe0O8bTtb0+9jzvtriOZceqsD/Sl"
        "JXVgTsz75ooorgOk/9k="
        ;
}

}  // namespace portable::cards
