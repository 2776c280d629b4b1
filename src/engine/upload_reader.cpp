#include "engine/upload_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "engine/header_lines.h"
#include "util/log.h"

namespace {

size_t readAnnounced(char* buffer, size_t size, size_t count, void* userdata) {
    UploadSource& source = *static_cast<UploadSource*>(userdata);
    size_t room = size * count;
    if (source.announced >= 0) {
        room = static_cast<size_t>(std::min<curl_off_t>(static_cast<curl_off_t>(room), source.announced - source.sent));
        if (room == 0) return 0;  // all announced bytes are sent; anything after them is not ours
    }
    const size_t got = std::fread(buffer, 1, room, source.stream);
    source.sent += static_cast<curl_off_t>(got);
    if (got > 0) return got;
    if (std::ferror(source.stream) != 0) {
        WC_LOG_ERROR("upload file could not be read: %s", std::strerror(errno));
        return CURL_READFUNC_ABORT;
    }
    if (source.announced < 0) return 0;
    WC_LOG_ERROR("upload file ended after %lld of the %lld bytes announced", static_cast<long long>(source.sent),
                 static_cast<long long>(source.announced));
    return CURL_READFUNC_ABORT;
}

// A redirect or an authentication round sends the body again from its start.
int seekUpload(void* userdata, curl_off_t offset, int origin) {
    UploadSource& source = *static_cast<UploadSource*>(userdata);
    if (origin != SEEK_SET || fseeko(source.stream, static_cast<off_t>(offset), SEEK_SET) != 0) {
        return CURL_SEEKFUNC_CANTSEEK;
    }
    source.sent = offset;
    return CURL_SEEKFUNC_OK;
}

}  // namespace

void sendFileAsBody(CURL* handle, UploadSource& source, std::FILE* stream, const struct stat& info) {
    source.stream = stream;
    source.announced = S_ISREG(info.st_mode) ? static_cast<curl_off_t>(info.st_size) : -1;
    source.sent = 0;
    curl_easy_setopt(handle, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(handle, CURLOPT_READFUNCTION, &readAnnounced);
    curl_easy_setopt(handle, CURLOPT_READDATA, &source);
    curl_easy_setopt(handle, CURLOPT_SEEKFUNCTION, &seekUpload);
    curl_easy_setopt(handle, CURLOPT_SEEKDATA, &source);
    curl_easy_setopt(handle, CURLOPT_INFILESIZE_LARGE, source.announced);
}

namespace webclient {

bool namesDirectory(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

curl_httppost* buildUploadForm(const std::map<std::string, std::string>* formFields, const std::string& fieldName,
                               const std::string& filePath) {
    const bool fieldWithNul = formFields != nullptr && std::any_of(formFields->begin(), formFields->end(), [](const auto& f) {
        return holdsNul(f.first) || holdsNul(f.second);
    });
    if (fieldWithNul || holdsNul(fieldName) || holdsNul(filePath)) {
        WC_LOG_ERROR("[buildUploadForm] a form field or the file name holds a NUL byte");
        return nullptr;
    }
    curl_httppost* first = nullptr;
    curl_httppost* last = nullptr;
    CURLFORMcode added = CURL_FORMADD_OK;
    if (formFields != nullptr) {
        for (auto field = formFields->begin(); field != formFields->end() && added == CURL_FORMADD_OK; ++field) {
            added = curl_formadd(&first, &last, CURLFORM_COPYNAME, field->first.c_str(), CURLFORM_COPYCONTENTS,
                                 field->second.c_str(), CURLFORM_END);
        }
    }
    if (added == CURL_FORMADD_OK) {
        added = curl_formadd(&first, &last, CURLFORM_COPYNAME, fieldName.c_str(), CURLFORM_FILE, filePath.c_str(),
                             CURLFORM_CONTENTTYPE, "application/octet-stream", CURLFORM_END);
    }
    if (added == CURL_FORMADD_OK) return first;
    // Half a form would go out as an upload without its file (or, with no
    // part at all, as a body-less request) and still be answered with 200.
    curl_formfree(first);
    return nullptr;
}

}  // namespace webclient
