// The texts of orvane/report/page, which the build puts into the program. They are Mustache
// templates: values are escaped, {{{three braces}}} take what is markup already.
#pragma once

extern const char *const TEMPLATE_PAGE;
extern const char *const TEMPLATE_SECTION; // of one capture
extern const char *const TEMPLATE_STYLE;
extern const char *const TEMPLATE_SORT;
extern const char *const TEMPLATE_JUNIT;
